#include "device/soft_device.h"

#include "device/soft_device_impl.h"
#include "platform/runtime.h"

#include <algorithm>

using std::chrono::milliseconds;

namespace {

// A client subscribes to one thing after the other; after such a pause it has done.
constexpr milliseconds kSubscribed{200};

// Whether the text holds the other, whatever the case.
bool Holds(std::string strText, std::string strPart)
{
    for (std::string *pstr : {&strText, &strPart}) {
        _mbslwr(reinterpret_cast<unsigned char *>(pstr->data()));
    }
    return strText.find(strPart) != std::string::npos;
}

// With the reason, if somebody wants to hear it; false, for a return.
bool Fail(std::string *pstrError, std::string const &strReason)
{
    if (pstrError) {
        *pstrError = strReason;
    }
    return false;
}

// The client has said who it is, and is still there.
bool IsUp(CDeviceLink const &link)
{
    return link.fHello && !link.fGone;
}

// When the entry's client has, or will have, done with subscribing; LinkTime::max() for not yet.
LinkTime SubscribedAt(CSoftDeviceImpl &device, PanelEntry const &entry) PLAT_REQUIRES(device.m_mx)
{
    CDeviceLink const *const pLink = device.FindLink(entry.owner);
    bool const fHears =
        pLink && (entry.fNetwork || pLink->registrations.contains(eDO_UI_SELECT_OPTION));
    return fHears ? pLink->lastRequest + kSubscribed : LinkTime::max();
}

void PickEntry(CSoftDeviceImpl &device, PanelEntry const &entry) PLAT_REQUIRES(device.m_mx)
{
    DeviceEventField const pick{"pick", ++device.m_dwPicks};
    device.Report(eEV_PICKED, {{"text", entry.strText}, {"link", entry.owner}, pick});
    if (!entry.fNetwork) {
        device.Publish(device.m_model.Select(entry.strText), {pick});
        return;
    }
    std::string strAddress;
    LinkAddress to;
    if (FindClause(entry.strText, "NETADDR=", &strAddress) && ParseHostAndPort(strAddress, &to)) {
        device.Kick(to, entry.strText, device.m_dwPicks);
    } else {
        device.Report(
            eEV_NOT_SENT,
            {{"reason", "the entry has no address a.b.c.d:port"}, {"text", entry.strText}, pick});
    }
}

// The first entry that fits; null for none.
template <class Fn>
PanelEntry const *FindEntry(CSoftDeviceImpl const &device, Fn fits) PLAT_REQUIRES(device.m_mx)
{
    auto const &panel = device.m_model.Panel();
    auto const it = std::find_if(panel.begin(), panel.end(), fits);
    return it == panel.end() ? nullptr : &*it;
}

PanelEntry const *FindText(CSoftDeviceImpl const &device, std::string const &strPart)
    PLAT_REQUIRES(device.m_mx)
{
    return FindEntry(device,
                     [&](PanelEntry const &entry) { return Holds(entry.strText, strPart); });
}

LinkStatus StatusOf(CSoftDeviceImpl const &device, CDeviceLink const &link)
    PLAT_REQUIRES(device.m_mx)
{
    bool const fNetwork = link.use == eLU_NETWORK;
    LinkStatus status{
        link.Id(), fNetwork, fNetwork ? FormatAddress(link.Peer()) : link.strAddress, 0, {}};
    auto const &panel = device.m_model.Panel();
    status.cEntries = static_cast<std::size_t>(std::count_if(
        panel.begin(), panel.end(), [&](auto const &entry) { return entry.owner == link.Id(); }));
    for (auto const &[nRow, registration] : link.registrations) {
        status.objects.push_back(g_deviceObjects[nRow].pszName);
    }
    return status;
}

// A client has been told of a press, and may still have something to do about it.
bool AwaitsClaim(CSoftDeviceImpl const &device) PLAT_REQUIRES(device.m_mx)
{
    bool const fHeard =
        std::any_of(device.m_links.begin(), device.m_links.end(), [](auto const &pLink) {
            return pLink->registrations.contains(eDO_SCANNER_BUTTON_STATUS);
        });
    return device.m_model.TokenHolder() != 0 ||
           (device.m_fPressTold && fHeard && device.m_model.IsPressed());
}

} // namespace

CSoftDevice::CSoftDevice(SoftDeviceConfig config)
    : m_pImpl(std::make_unique<CSoftDeviceImpl>(std::move(config)))
{
}

CSoftDevice::~CSoftDevice() = default;

bool CSoftDevice::Start(std::string *pstrError, WORD wPort)
{
    return m_pImpl->Start(pstrError, wPort);
}

void CSoftDevice::Stop()
{
    m_pImpl->Stop();
}

WORD CSoftDevice::Port() const
{
    return m_pImpl->Port();
}

SoftDeviceConfig const &CSoftDevice::Config() const
{
    return m_pImpl->m_config;
}

// ---- The front panel

std::vector<PanelEntry> CSoftDevice::Panel() const
{
    CPlatGuard const lock(m_pImpl->m_mx);
    return m_pImpl->m_model.Panel();
}

bool CSoftDevice::WaitForEntry(std::string const &strPart, DWORD dwMilliseconds,
                               std::string *pstrError) const
{
    LinkTime const deadline = LinkClock::now() + milliseconds(dwMilliseconds);
    CPlatWaitGuard lock(m_pImpl->m_mx);
    for (;;) {
        bool fThere = false;
        LinkTime subscribed = LinkTime::max();
        for (PanelEntry const &entry : m_pImpl->m_model.Panel()) {
            if (Holds(entry.strText, strPart)) {
                fThere = true;
                subscribed = std::min(subscribed, SubscribedAt(*m_pImpl, entry));
            }
        }
        LinkTime const now = LinkClock::now();
        if (subscribed <= now) {
            return true;
        }
        if (m_pImpl->m_fEnding || now >= deadline) {
            return Fail(pstrError, fThere ? "the entry's client is not ready to hear of a pick"
                                          : "no such entry came: " + strPart);
        }
        m_pImpl->m_cvPanel.wait_until(lock.Native(), std::min(subscribed, deadline));
    }
}

bool CSoftDevice::HasEntry(std::string const &strPart) const
{
    CPlatGuard const lock(m_pImpl->m_mx);
    return FindText(*m_pImpl, strPart) != nullptr;
}

bool CSoftDevice::Pick(std::size_t nEntry, std::string *pstrError)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    auto const &panel = m_pImpl->m_model.Panel();
    if (nEntry == 0 || nEntry > panel.size()) {
        return Fail(pstrError, "there is no entry " + std::to_string(nEntry));
    }
    PickEntry(*m_pImpl, panel[nEntry - 1]);
    return true;
}

bool CSoftDevice::PickId(DWORD dwId, std::string *pstrError)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    PanelEntry const *const pEntry =
        FindEntry(*m_pImpl, [&](PanelEntry const &entry) { return entry.dwId == dwId; });
    if (!pEntry) {
        return Fail(pstrError, "that entry has gone");
    }
    PickEntry(*m_pImpl, *pEntry);
    return true;
}

bool CSoftDevice::PickText(std::string const &strPart, std::string *pstrError)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    PanelEntry const *const pEntry = FindText(*m_pImpl, strPart);
    if (!pEntry) {
        return Fail(pstrError, "no entry holds " + strPart);
    }
    PickEntry(*m_pImpl, *pEntry);
    return true;
}

std::size_t CSoftDevice::SetFeeder(bool fOn)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->Report(eEV_FEEDER, {{"state", fOn ? "on" : "off"}});
    return m_pImpl->Publish(m_pImpl->m_model.SetFeeder(fOn));
}

std::size_t CSoftDevice::PressButton()
{
    CPlatGuard const lock(m_pImpl->m_mx);
    ++m_pImpl->m_dwPresses;
    m_pImpl->Report(eEV_BUTTON, m_pImpl->OfPress({}));
    std::size_t const cTold =
        m_pImpl->Publish(m_pImpl->m_model.PressButton(), m_pImpl->OfPress({}));
    m_pImpl->m_fPressTold = cTold > 0;
    return cTold;
}

std::size_t CSoftDevice::AnnounceFax()
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->Report(eEV_FAX);
    return m_pImpl->Publish(m_pImpl->m_model.AnnounceFax());
}

DeviceStatus CSoftDevice::Status() const
{
    CPlatGuard const lock(m_pImpl->m_mx);
    DeviceStatus status;
    for (auto const &pLink : m_pImpl->m_links) {
        if (IsUp(*pLink)) {
            status.links.push_back(StatusOf(*m_pImpl, *pLink));
        }
    }
    status.fFeeder = m_pImpl->m_model.Value(eDO_NOT_READY_SOURCE_SCANNER) == WordValue(kFeederBit);
    status.fFax = m_pImpl->m_model.Value(eDO_FAX_UPLOAD) == WordValue(kFaxWaiting);
    status.fPressWaits = m_pImpl->m_model.IsPressed();
    status.tokenHolder = m_pImpl->m_model.TokenHolder();
    status.kicks = m_pImpl->m_kicks.Waiting();
    status.habits = {m_pImpl->m_kicks.Counts(), m_pImpl->m_model.ClaimsToRefuse(),
                     m_pImpl->m_cGarble, static_cast<DWORD>(m_pImpl->m_late.count()),
                     m_pImpl->m_fMute};
    LinkTime const until = m_pImpl->m_turnAwayUntil;
    status.dwCutMs = until > LinkClock::now() ? MillisecondsUntil(until) : 0;
    return status;
}

std::string CSoftDevice::Finish(DWORD dwMilliseconds)
{
    LinkTime const deadline = LinkClock::now() + milliseconds(dwMilliseconds);
    CPlatWaitGuard lock(m_pImpl->m_mx);
    m_pImpl->m_turnAwayUntil = LinkTime::max();
    bool const fSettled =
        m_pImpl->m_cvPanel.wait_until(lock.Native(), deadline, [&]() PLAT_REQUIRES(m_pImpl->m_mx) {
            return m_pImpl->m_fEnding || (m_pImpl->m_kicks.IsIdle() && !AwaitsClaim(*m_pImpl));
        });
    for (auto const &pLink : m_pImpl->m_links) {
        if (IsUp(*pLink)) {
            pLink->PostFinish();
        }
    }
    m_pImpl->Wake();
    bool const fReceived =
        m_pImpl->m_cvPanel.wait_until(lock.Native(), deadline, [&]() PLAT_REQUIRES(m_pImpl->m_mx) {
            return m_pImpl->m_fEnding ||
                   std::none_of(m_pImpl->m_links.begin(), m_pImpl->m_links.end(),
                                [](auto const &pLink) { return IsUp(*pLink); });
        });
    if (!fSettled) {
        return m_pImpl->m_kicks.IsIdle() ? "a press of the button has not been dealt with"
                                         : std::to_string(m_pImpl->m_kicks.Waiting().size()) +
                                               " datagrams have not been echoed";
    }
    return fReceived ? "" : "a client has not received all";
}

// ---- For who answers in its place

void CSoftDevice::SendFrame(DWORD dwLink, LinkFrame const &frame)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    if (CDeviceLink *const pLink = m_pImpl->FindLink(dwLink); pLink && IsUp(*pLink)) {
        m_pImpl->ReportFrame(*pLink, frame, /*fFromClient=*/false);
        pLink->Post(EncodeLinkFrame(frame), LinkTime::min());
        m_pImpl->Wake();
    }
}

void CSoftDevice::SendDatagram(LinkAddress const &to, std::string const &strBytes)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->SendDatagram(to, strBytes);
}

void CSoftDevice::DropLink(DWORD dwLink)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    if (CDeviceLink *const pLink = m_pImpl->FindLink(dwLink)) {
        m_pImpl->DropLink(*pLink, "dropped");
        m_pImpl->Wake();
    }
}

// ---- Misbehaviour

void CSoftDevice::CutLinks(DWORD dwMilliseconds)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->Report(eEV_CUT, {{"ms", dwMilliseconds}});
    m_pImpl->m_turnAwayUntil = LinkClock::now() + milliseconds(dwMilliseconds);
    for (auto const &pLink : m_pImpl->m_links) {
        m_pImpl->DropLink(*pLink, "cut");
    }
    m_pImpl->Wake();
}

void CSoftDevice::SendGarbage()
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->Report(eEV_GARBAGE);
    for (auto const &pLink : m_pImpl->m_links) {
        pLink->Post(LinkBytes(64, 0xA5), LinkTime::min()); // as a length, far too large
    }
    m_pImpl->Wake();
}

void CSoftDevice::DropDatagrams(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_kicks.Drop(c);
    m_pImpl->HabitChanged("drop", c);
}

void CSoftDevice::RepeatDatagrams(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_kicks.Repeat(c);
    m_pImpl->HabitChanged("repeat", c);
}

void CSoftDevice::ReorderDatagrams(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_kicks.Reorder(c);
    m_pImpl->HabitChanged("reorder", c);
}

void CSoftDevice::LoseEchoes(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_kicks.LoseEchoes(c);
    m_pImpl->HabitChanged("lose-echo", c);
}

void CSoftDevice::SetDatagramOdds(KickOdds const &odds)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_kicks.SetOdds(odds);
}

void CSoftDevice::RefuseClaims(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_model.RefuseClaims(c);
    m_pImpl->HabitChanged("refuse-claim", c);
}

void CSoftDevice::SetLate(DWORD dwMilliseconds)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_late = milliseconds(dwMilliseconds);
    m_pImpl->HabitChanged("late", dwMilliseconds);
}

void CSoftDevice::SetMute(bool fMute)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_fMute = fMute;
    m_pImpl->HabitChanged("mute", fMute);
}

void CSoftDevice::GarbleAnswers(unsigned c)
{
    CPlatGuard const lock(m_pImpl->m_mx);
    m_pImpl->m_cGarble = c;
    m_pImpl->HabitChanged("garble", c);
}
