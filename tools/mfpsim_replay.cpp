#include "tools/mfpsim_replay.h"

#include "tools/showable.h"

#include <iostream>
#include <string_view>

namespace {

constexpr std::size_t kShownDepartures = 10;

DeviceEventField const *FindField(DeviceEvent const &event, std::string_view strName)
{
    for (DeviceEventField const &field : event.fields) {
        if (field.pszName == strName) {
            return &field;
        }
    }
    return nullptr;
}

std::string TextOf(DeviceEvent const &event, std::string_view strName)
{
    DeviceEventField const *const pField = FindField(event, strName);
    return pField ? std::get<std::string>(pField->value) : "";
}

} // namespace

bool CReplay::Load(std::string const &strFile, double dSpeed, std::string *pstrError)
{
    if (!ReadTape(strFile, &m_tape, pstrError)) {
        return false;
    }
    CPlatGuard const lock(m_mx);
    bool fClients = false;
    for (unsigned n = 1; n <= m_tape.cDevices; ++n) {
        m_players.emplace_back(m_tape, n, dSpeed,
                               [this](std::string const &strLine)
                                   PLAT_REQUIRES(m_mx) { Depart(strLine); });
        m_byDevice.push_back(&m_players.back());
        fClients = fClients || m_players.back().HasClients();
    }
    if (!fClients) {
        *pstrError = strFile + ": no client is on this tape";
    }
    return fClients;
}

void CReplay::Start(std::vector<CSoftDevice *> devices, std::function<void()> onEnd)
{
    m_devices = std::move(devices);
    m_thread = std::thread([this, onEnd] { Play(onEnd); });
}

void CReplay::Stop()
{
    {
        CPlatGuard const lock(m_mx);
        m_fEnding = true;
    }
    m_cv.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void CReplay::Event(std::size_t nDevice, DeviceEvent const &event)
{
    if (event.eKind != eEV_LINK_UP && event.eKind != eEV_LINK_DOWN) {
        return;
    }
    CPlatGuard const lock(m_mx);
    CTapePlayer &player = *m_byDevice[nDevice - 1];
    auto const dwLink =
        static_cast<DWORD>(std::get<std::uint64_t>(FindField(event, "link")->value));
    if (event.eKind == eEV_LINK_UP) {
        player.LinkUp(LinkClock::now(), dwLink, TextOf(event, "use") == "network",
                      TextOf(event, "address"));
    } else {
        bool const fAsked = FindField(event, "finished") != nullptr;
        player.LinkDown(LinkClock::now(), dwLink, !fAsked && TextOf(event, "reason") == "closed");
    }
    m_cv.notify_all();
}

void CReplay::Datagram(std::size_t nDevice, DeviceDatagram const &datagram)
{
    if (!datagram.fFromClient) {
        return;
    }
    CPlatGuard const lock(m_mx);
    m_byDevice[nDevice - 1]->Echo(LinkClock::now(), datagram.strBytes);
    m_cv.notify_all();
}

std::optional<DeviceReply> CReplay::Request(std::size_t nDevice, DWORD dwLink,
                                            LinkFrame const &frame)
{
    CPlatGuard const lock(m_mx);
    m_cv.notify_all();
    return m_byDevice[nDevice - 1]->Request(LinkClock::now(), dwLink, frame);
}

void CReplay::Depart(std::string const &strLine)
{
    if (++m_cDepartures <= kShownDepartures) {
        std::cerr << "mfpsim: " << Showable(strLine) << std::endl;
    }
}

std::vector<std::string> CReplay::Remarks()
{
    CPlatGuard const lock(m_mx);
    std::vector<std::string> lines;
    std::size_t cLeftOut = 0;
    for (CTapePlayer const &player : m_players) {
        cLeftOut += player.LeftOut();
    }
    if (cLeftOut > 0) {
        lines.push_back(std::to_string(cLeftOut) +
                        " datagrams of the tape are of no entry on it, such as answers "
                        "to discovery jobs, and are not sent");
    }
    if (m_tape.nBrokenOff > 0) {
        lines.push_back("the tape breaks off in line " + std::to_string(m_tape.nBrokenOff));
    }
    if (m_cDepartures > kShownDepartures) {
        lines.push_back("clients have departed from the tape " + std::to_string(m_cDepartures) +
                        " times in all");
    }
    return lines;
}

bool CReplay::HasDeparted()
{
    CPlatGuard const lock(m_mx);
    return m_cDepartures > 0;
}

void CReplay::Act(CSoftDevice &device, TapeAct const &act)
{
    switch (act.eKind) {
    case TapeAct::eFRAME:
        return device.SendFrame(act.dwLink, act.frame);
    case TapeAct::eDATAGRAM:
        return device.SendDatagram(act.to, act.strBytes);
    case TapeAct::eDROP:
        return device.DropLink(act.dwLink);
    case TapeAct::eCUT:
        return device.CutLinks(act.dwMilliseconds);
    case TapeAct::eGARBAGE:
        return device.SendGarbage();
    }
}

void CReplay::Play(std::function<void()> const &onEnd)
{
    CPlatWaitGuard lock(m_mx);
    while (!m_fEnding) {
        LinkTime next = LinkTime::max();
        bool fAtEnd = true;
        std::vector<std::pair<CSoftDevice *, TapeAct>> acts;
        LinkTime const now = LinkClock::now();
        for (std::size_t n = 0; n < m_byDevice.size(); ++n) {
            LinkTime due;
            for (TapeAct &act : m_byDevice[n]->Run(now, &due)) {
                acts.emplace_back(m_devices[n], std::move(act));
            }
            next = std::min(next, due);
            fAtEnd = fAtEnd && m_byDevice[n]->IsAtEnd();
        }
        if (acts.empty() && !fAtEnd) {
            if (next == LinkTime::max()) {
                m_cv.wait(lock.Native());
            } else {
                m_cv.wait_until(lock.Native(), next);
            }
            continue;
        }
        lock.unlock(); // the devices' locks come first
        for (auto const &[pDevice, act] : acts) {
            Act(*pDevice, act);
        }
        if (fAtEnd) {
            return onEnd();
        }
        lock.lock();
    }
}
