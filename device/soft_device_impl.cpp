#include "device/soft_device_impl.h"

#include <algorithm>

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMaxLinks = 512;
constexpr std::size_t kMaxSilent = 64; // of them, that have not said hello yet
constexpr milliseconds kAcceptPause{50};
constexpr DWORD kLocalHost = 0x7F000001;
constexpr DWORD kNoWaitMs = 1; // for a datagram that was there and turned out to be damaged
// What the loop knows the device's sockets by; those of links come behind.
constexpr DWORD kListener = 0;
constexpr DWORD kDatagrams = 1;
constexpr DWORD kFirstLink = 2;

} // namespace

CSoftDeviceImpl::CSoftDeviceImpl(SoftDeviceConfig config)
    : m_config(std::move(config)), m_model(m_config.strSerial),
      m_kicks([this](LinkAddress const &to, std::string const &str)
                  PLAT_REQUIRES(m_mx) { SendDatagram(to, str); },
              [this](DeviceEvent const &event)
                  PLAT_REQUIRES(m_mx) { Report(event.eKind, event.fields); }),
      m_strId("MFG:Norvale;CLS:MFP;MDL:" + m_config.strModel + ";"), m_pLoop(m_config.pLoop)
{
    m_kicks.SetPace(milliseconds(m_config.dwKickIntervalMs), m_config.cKickTries);
}

// ---- Starting and stopping

bool CSoftDeviceImpl::Start(std::string *pstrError, WORD wPort)
{
    m_wPort = m_config.wPort != 0 ? m_config.wPort : wPort;
    if (!m_config.pLoop) {
        m_pLoop = std::make_shared<CDeviceLoop>();
        if (!m_pLoop->Start(pstrError)) {
            return false;
        }
    }
    return Listen(pstrError) && OpenDatagrams(pstrError) && StartPrintPath(pstrError) &&
           Watch(pstrError);
}

bool CSoftDeviceImpl::StartPrintPath(std::string *pstrError)
{
    if (m_config.strPrintPath.empty()) {
        return true;
    }
    m_pPrintPath = std::make_unique<CPrintPath>(
        m_config.strPrintPath, [this](DiscoveryFind const &find) { OnFind(find); },
        [this](std::string const &str) {
            CPlatGuard const lock(m_mx);
            Report(eEV_PRINT_PATH, {{"text", str}});
        });
    return m_pPrintPath->Start(pstrError);
}

bool CSoftDeviceImpl::Watch(std::string *pstrError)
{
    CPlatGuard const lock(m_mx); // nothing is served before all is there
    m_place = m_pLoop->Attach(*this);
    if (m_pLoop->Add(m_place, m_listener.Get(), kListener) &&
        m_pLoop->Add(m_place, m_datagrams.Get(), kDatagrams)) {
        return true;
    }
    *pstrError = "cannot wait for clients, error " + std::to_string(ws::WSAGetLastError());
    return false;
}

namespace {

std::string ListenProblem(int nError)
{
    switch (nError) {
    case WSAEADDRINUSE:
        return "in use";
    case WSAEADDRNOTAVAIL:
        return "no address of this machine";
    case WSAEACCES:
        return "not allowed";
    default:
        return "error " + std::to_string(nError);
    }
}

} // namespace

bool CSoftDeviceImpl::Listen(std::string *pstrError)
{
    if (!ParseDottedAddress(m_config.strListen, &m_dwListen)) {
        *pstrError = "listen address " + m_config.strListen + " is not of the form a.b.c.d";
        return false;
    }
    m_listener.Set(ws::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sa = ToSockAddr({m_dwListen, m_wPort});
    int cb = sizeof sa;
    auto *const pAddress = reinterpret_cast<sockaddr *>(&sa);
    if (ws::bind(m_listener.Get(), pAddress, cb) != 0 || ws::listen(m_listener.Get(), 64) != 0 ||
        ws::getsockname(m_listener.Get(), pAddress, &cb) != 0) {
        int const nError = ws::WSAGetLastError(); // before anything else can change it
        *pstrError = "cannot listen at " + FormatAddress({m_dwListen, m_wPort}) + ": " +
                     ListenProblem(nError);
        return false;
    }
    m_wPort = FromSockAddr(sa).wPort;
    return true;
}

bool CSoftDeviceImpl::OpenDatagrams(std::string *pstrError)
{
    m_datagrams.Set(ws::socket(AF_INET, SOCK_DGRAM, 0));
    // From the address that clients know; but one from a loopback address would reach nobody outside.
    // Several of those tell devices on one machine apart.
    DWORD const dwFrom = m_dwListen == kLocalHost ? 0 : m_dwListen;
    sockaddr_in const sa = ToSockAddr({dwFrom, 0});
    if (ws::bind(m_datagrams.Get(), reinterpret_cast<sockaddr const *>(&sa), sizeof sa) != 0) {
        *pstrError =
            "cannot open a datagram socket, error " + std::to_string(ws::WSAGetLastError());
        return false;
    }
    ws::setsockopt(m_datagrams.Get(), SOL_SOCKET, SO_RCVTIMEO,
                   reinterpret_cast<char const *>(&kNoWaitMs), sizeof kNoWaitMs);
    return true;
}

void CSoftDeviceImpl::Stop()
{
    {
        CPlatGuard const lock(m_mx);
        m_fEnding = true;
        m_cvPanel.notify_all();
    }
    m_pPrintPath.reset();
    if (m_place != 0) {
        m_pLoop->Detach(m_place);
        for (SOCKET const s : {m_listener.Get(), m_datagrams.Get()}) {
            m_pLoop->Remove(s);
        }
    }
    CPlatGuard const lock(m_mx);
    m_listener.Close();
    m_datagrams.Close();
    for (auto const &pLink : m_links) {
        CloseLink(*pLink);
    }
    m_links.clear();
    m_place = 0;
    if (!m_config.pLoop) {
        m_pLoop.reset();
    }
}

void CSoftDeviceImpl::Wake()
{
    if (m_pLoop) {
        m_pLoop->Wake(m_place);
    }
}

void CSoftDeviceImpl::Report(DeviceEventKind eKind, Fields fields)
{
    if (m_config.onEvent) {
        m_config.onEvent({eKind, std::move(fields)});
    }
}

void CSoftDeviceImpl::ReportFrame(CDeviceLink const &link, LinkFrame const &frame, bool fFromClient,
                                  DeviceFrameFate eFate)
{
    if (m_config.onFrame) {
        bool const fAnswer = (frame.kind & kLinkAnswerBit) != 0; // others are in time
        DWORD const dwLateMs = fAnswer ? static_cast<DWORD>(m_late.count()) : 0;
        m_config.onFrame({link.Id(), fFromClient, frame, eFate, dwLateMs});
    }
}

void CSoftDeviceImpl::ReportDatagram(LinkAddress const &peer, std::string const &strBytes,
                                     bool fFromClient)
{
    if (m_config.onDatagram) {
        std::string const strPeer = FormatAddress(peer);
        m_config.onDatagram({fFromClient, strPeer, strBytes});
    }
}

void CSoftDeviceImpl::HabitChanged(char const *pszName, std::uint64_t qwValue)
{
    Report(eEV_HABIT, {{"habit", pszName}, {"value", qwValue}});
    Wake();
}

// What happens about the last press of the button.
CSoftDeviceImpl::Fields CSoftDeviceImpl::OfPress(Fields fields) const
{
    if (m_dwPresses > 0) {
        DeviceEventField const press{"press", m_dwPresses};
        fields.push_back(press);
    }
    return fields;
}

// ---- Links

CDeviceLink *CSoftDeviceImpl::FindLink(ClientId id)
{
    auto const it = std::find_if(m_links.begin(), m_links.end(),
                                 [&](auto const &pLink) { return pLink->Id() == id; });
    return it == m_links.end() ? nullptr : it->get();
}

void CSoftDeviceImpl::OnReady(DWORD dwSocket, bool fRead, bool)
{
    CPlatGuard const lock(m_mx);
    if (m_fEnding || !fRead) { // room to write: OnTime sends
        return;
    }
    if (dwSocket == kListener) {
        Accept();
    } else if (dwSocket == kDatagrams) {
        ReceiveEcho();
    } else if (CDeviceLink *const pLink = FindLink(dwSocket - kFirstLink)) {
        ReadLink(*pLink);
    }
}

LinkTime CSoftDeviceImpl::OnTime(LinkTime now)
{
    CPlatGuard const lock(m_mx);
    if (m_fEnding) {
        return LinkTime::max();
    }
    if (m_acceptAgain <= now) {
        m_acceptAgain = LinkTime::max();
        m_pLoop->Change(m_place, m_listener.Get(), kListener, /*fRead=*/true, /*fWrite=*/false);
    }
    LinkTime const links = ServeLinks(now); // their frames have been told of before
    LinkTime const kicks = m_kicks.Run(now);
    m_cvPanel.notify_all(); // some datagrams may have been given up, some links have ended
    return std::min({kicks, links, m_acceptAgain});
}

LinkTime CSoftDeviceImpl::ServeLinks(LinkTime now)
{
    LinkTime next = LinkTime::max();
    for (auto const &pLink : m_links) { // DropLink tells others, whose turn may have been
        if (!pLink->IsEnded() && pLink->IsSilent(now)) {
            DropLink(*pLink, "it is silent");
            CloseLink(*pLink);
        }
    }
    for (auto const &pLink : m_links) {
        pLink->Send(now);
        if (pLink->IsEnded()) {
            DropLink(*pLink, "closed");
            CloseLink(*pLink);
        } else if (pLink->fAwaitsRoom != pLink->AwaitsRoom()) {
            pLink->fAwaitsRoom = pLink->AwaitsRoom();
            m_pLoop->Change(m_place, pLink->Socket(), pLink->Id() + kFirstLink, /*fRead=*/true,
                            pLink->fAwaitsRoom);
        }
    }
    std::erase_if(m_links, [](auto const &pLink) { return pLink->IsEnded(); });
    for (auto const &pLink : m_links) {
        next = std::min(next, pLink->Due());
    }
    return next;
}

void CSoftDeviceImpl::Accept()
{
    SOCKET const s = ws::accept(m_listener.Get(), nullptr, nullptr);
    if (s == INVALID_SOCKET) { // a shortage that may pass
        m_acceptAgain = LinkClock::now() + kAcceptPause;
        m_pLoop->Change(m_place, m_listener.Get(), kListener, /*fRead=*/false, /*fWrite=*/false);
        return;
    }
    if (!Admit(s)) {
        ws::closesocket(s);
    }
}

bool CSoftDeviceImpl::Admit(SOCKET s)
{
    if (LinkClock::now() < m_turnAwayUntil) {
        return false;
    }
    DropOldestSilent();
    if (m_links.size() == kMaxLinks) {
        return false;
    }
    if (!m_pLoop->Add(m_place, s, m_lastLink + 1 + kFirstLink)) {
        return false;
    }
    m_links.push_back(std::make_unique<CDeviceLink>(++m_lastLink, s));
    return true;
}

// Somebody who connects and says nothing is not to keep out who would speak: the newcomer takes its place.
void CSoftDeviceImpl::DropOldestSilent()
{
    auto const fSilent = [](auto const &pLink) { return !pLink->fHello && !pLink->fGone; };
    if (std::count_if(m_links.begin(), m_links.end(), fSilent) >=
        static_cast<std::ptrdiff_t>(kMaxSilent)) {
        DropLink(**std::find_if(m_links.begin(), m_links.end(), fSilent), "silent");
    }
}

void CSoftDeviceImpl::CloseLink(CDeviceLink &link)
{
    m_pLoop->Remove(link.Socket());
    link.Close();
}

void CSoftDeviceImpl::ReadLink(CDeviceLink &link)
{
    LinkTime const now = LinkClock::now();
    bool const fOpen = link.Read();
    LinkFrame frame;
    LinkReceive eReceive = eRX_TIMEOUT;
    while (!link.IsEnded() && (eReceive = link.Next(&frame, now)) == eRX_FRAME) {
        OnFrame(link, frame);
    }
    // Before the connection closes: a client that hears us hang up may rely on being forgotten.
    if (eReceive == eRX_GARBAGE || !fOpen) {
        DropLink(link, eReceive == eRX_GARBAGE ? "it sends garbage" : "closed");
        CloseLink(link);
    }
}

void CSoftDeviceImpl::OnFrame(CDeviceLink &link, LinkFrame const &frame)
{
    if (link.fGone) {
        return;
    }
    ReportFrame(link, frame, /*fFromClient=*/true);
    if (link.fHello) {
        Request(link, frame);
    } else {
        Hello(link, frame);
    }
}

// The device forgets the link at once; the loop takes it away.
void CSoftDeviceImpl::DropLink(CDeviceLink &link, std::string const &strReason)
{
    if (link.fGone) {
        return;
    }
    link.fGone = true;
    CloseLink(link);
    link.registrations.clear();
    if (!link.fHello || m_fEnding) {
        return;
    }
    Fields fields{{"link", link.Id()}, {"reason", strReason}};
    if (m_turnAwayUntil == LinkTime::max()) {
        fields.push_back(
            {"finished", std::uint64_t{1}}); // the client has hung up as it was asked to
    }
    Report(eEV_LINK_DOWN, std::move(fields));
    ObjectChanges changes;
    for (PanelEntry const &entry : m_model.ClientGone(link.Id(), &changes)) {
        Report(eEV_ENTRY_GONE, {{"link", link.Id()}, {"text", entry.strText}});
    }
    for (ObjectChange const &change : changes) {
        Publish(change);
    }
    m_cvPanel.notify_all();
}

std::size_t CSoftDeviceImpl::Publish(ObjectChange const &change, Fields const &fields)
{
    std::size_t cTold = 0;
    for (auto const &pLink : m_links) {
        cTold += SendTrap(*pLink, change.nRow, change.value, fields) ? 1 : 0;
    }
    return cTold;
}

// False if that client has not registered for the object.
bool CSoftDeviceImpl::SendTrap(CDeviceLink &link, int nRow, LinkBytes const &value,
                               Fields const &fields)
{
    auto const it = link.registrations.find(nRow);
    if (it == link.registrations.end()) {
        return false;
    }
    CLinkWriter writer;
    writer.Word16(it->second.wTrapId).Byte(it->second.dataType);
    writer.Bytes32(value.data(), value.size());
    LinkFrame const frame{eLK_TRAP_VALUE, 0, writer.Take()};
    ReportFrame(link, frame, /*fFromClient=*/false);
    link.Post(EncodeLinkFrame(frame), LinkTime::min());
    Wake();
    Fields all{{"object", g_deviceObjects[nRow].pszName}, {"link", link.Id()}};
    all.insert(all.end(), fields.begin(), fields.end());
    Report(eEV_TRAP_SENT, std::move(all));
    return true;
}

// ---- Datagrams

void CSoftDeviceImpl::Kick(LinkAddress const &to, std::string const &strText, DWORD dwPick)
{
    if (!m_kicks.Add(to, strText, dwPick)) {
        Report(
            eEV_NOT_SENT,
            {{"reason", "too long or too many are waiting"}, {"text", strText}, {"pick", dwPick}});
    }
    Wake();
}

void CSoftDeviceImpl::SendDatagram(LinkAddress const &to, std::string const &strDatagram)
{
    ReportDatagram(to, strDatagram, /*fFromClient=*/false);
    sockaddr_in const sa = ToSockAddr(to);
    // A failure is like a loss on the way: the next try follows.
    static_cast<void>(ws::sendto(m_datagrams.Get(), strDatagram.data(),
                                 static_cast<int>(strDatagram.size()), 0,
                                 reinterpret_cast<sockaddr const *>(&sa), sizeof sa));
}

void CSoftDeviceImpl::ReceiveEcho()
{
    char buffer[CKickSender::kMaxDatagram + 1]; // longer ones are no echo of ours
    sockaddr_in sa{};
    int cb = sizeof sa;
    int const n = ws::recvfrom(m_datagrams.Get(), buffer, sizeof buffer, 0,
                               reinterpret_cast<sockaddr *>(&sa), &cb);
    if (n >= 0) {
        std::string const strBytes(buffer, static_cast<std::size_t>(n));
        ReportDatagram(FromSockAddr(sa), strBytes, /*fFromClient=*/true);
        m_kicks.Echo(FromSockAddr(sa).wPort, strBytes);
    }
}

// ---- The print path

void CSoftDeviceImpl::OnFind(DiscoveryFind const &find)
{
    CPlatGuard const lock(m_mx);
    if (find.strRefusal.empty()) {
        AnswerJob(find.job);
    } else {
        Report(eEV_JOB_REFUSED, {{"reason", find.strRefusal}});
    }
}

void CSoftDeviceImpl::AnswerJob(DiscoveryJob const &job)
{
    std::string const strText = "TYPE=<ECHO>;SRVQ=" + job.strNumber +
                                ";MODEL=" + m_config.strModel + ";NETADDR=" + job.strAddress + ";";
    LinkAddress to;
    CDeviceLink *const pLink = FindLocal(job.strAddress);
    bool const fNetwork = ParseHostAndPort(job.strAddress, &to);
    if (!fNetwork && !pLink) {
        Report(eEV_JOB_REFUSED,
               {{"reason", "its address is neither a.b.c.d:port nor that of a local link: " +
                               job.strAddress}});
        return;
    }
    Report(eEV_JOB_TAKEN, {{"number", job.strNumber}, {"address", job.strAddress}});
    if (fNetwork) {
        Kick(to, strText);
    } else if (!SendTrap(*pLink, eDO_UI_SELECT_OPTION, LinkBytes(strText.begin(), strText.end()))) {
        Report(eEV_JOB_NOT_ANSWERED, {{"address", job.strAddress},
                                      {"object", g_deviceObjects[eDO_UI_SELECT_OPTION].pszName}});
    }
}
