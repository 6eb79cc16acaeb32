#include "device/soft_device.h"

#include "device/device_link.h"
#include "device/discovery_job.h"
#include "device/print_path.h"
#include "platform/runtime.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMaxLinks = 512;
constexpr std::size_t kMaxSilent = 64; // of them, that have not said hello yet
// A client subscribes to one thing after the other; after such a pause it has done.
constexpr milliseconds kSubscribed{200};
constexpr milliseconds kAcceptPause{50};
constexpr DWORD kLoopbackNet = 127;
constexpr DWORD kLocalHost = 0x7F000001;
constexpr DWORD kNoWaitMs = 1; // for a datagram that was there and turned out to be damaged
// What the loop knows the device's sockets by; those of links come behind.
constexpr DWORD kListener = 0;
constexpr DWORD kDatagrams = 1;
constexpr DWORD kFirstLink = 2;

// Whether the text holds the part, whatever the case.
bool Holds(std::string strText, std::string strPart)
{
    for (std::string *pstr : {&strText, &strPart}) {
        _mbslwr(reinterpret_cast<unsigned char *>(pstr->data()));
    }
    return strText.find(strPart) != std::string::npos;
}

bool IsAddressText(std::string const &str)
{
    return !str.empty() && str.size() <= kLinkMaxAddressText &&
           std::all_of(str.begin(), str.end(), [](char ch) {
               return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') ||
                      (ch >= 'a' && ch <= 'z') || ch == '.' || ch == '-' || ch == '_';
           });
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

bool IsLoopback(LinkAddress const &address)
{
    return address.dwHost >> 24 == kLoopbackNet;
}

} // namespace

// Lock: m_mx guards the device, everything below it included; before the lock of the loop, after none.
class CSoftDeviceImpl final : public CDeviceLoop::Client {
public:
    explicit CSoftDeviceImpl(SoftDeviceConfig config);
    ~CSoftDeviceImpl() { Stop(); }

    bool Start(std::string *pstrError, WORD wPort);
    void Stop();
    WORD Port() const { return m_wPort; }
    SoftDeviceConfig const &Config() const { return m_config; }

    std::vector<PanelEntry> Panel();
    bool WaitForEntry(std::string const &strPart, DWORD dwMilliseconds, std::string *pstrError);
    bool HasEntry(std::string const &strPart);
    bool Pick(std::size_t nEntry, std::string *pstrError);
    bool PickText(std::string const &strPart, std::string *pstrError);
    bool PickId(DWORD dwId, std::string *pstrError);
    std::size_t SetFeeder(bool fOn);
    std::size_t PressButton();
    std::size_t AnnounceFax();
    DeviceStatus Status();
    std::string Finish(DWORD dwMilliseconds);
    void CutLinks(DWORD dwMilliseconds);
    void SendGarbage();
    // Runs fn under the lock, and reports what the misbehaviour is from now on.
    template <class Fn>
    void SetHabit(char const *pszName, std::uint64_t qwValue, Fn fn)
    {
        Change([&](auto &device) {
            fn(device);
            device.Report(eEV_HABIT, {{"habit", pszName}, {"value", qwValue}});
        });
    }

    // Runs fn under the lock, and the datagrams that became due by it.
    template <class Fn>
    void Change(Fn fn)
    {
        std::lock_guard lock(m_mx);
        fn(*this);
        Wake();
    }

    void OnReady(DWORD dwSocket, bool fRead, bool fWrite) override;
    LinkTime OnTime(LinkTime now) override;

    // For Change.
    CDeviceModel m_model;
    CKickSender m_kicks;
    milliseconds m_late{0};
    bool m_fMute = false;
    unsigned m_cGarble = 0;

private:
    using Links = std::vector<std::unique_ptr<CDeviceLink>>;

    bool Listen(std::string *pstrError);
    bool OpenDatagrams(std::string *pstrError);
    bool Watch(std::string *pstrError);

    // With the lock held.
    void Wake()
    {
        if (m_pLoop) {
            m_pLoop->Wake(m_place);
        }
    }
    void Accept();
    bool Admit(SOCKET s);
    void ReceiveEcho();
    void ReadLink(CDeviceLink &link);
    void OnFrame(CDeviceLink &link, LinkFrame const &frame);
    void CloseLink(CDeviceLink &link);
    LinkTime ServeLinks(LinkTime now);
    using Fields = std::vector<DeviceEventField>;
    void Report(DeviceEventKind eKind, Fields fields = {});
    void ReportFrame(CDeviceLink const &link, LinkFrame const &frame, bool fFromClient,
                     DeviceFrameFate eFate = eFF_SENT);
    Fields OfPress(Fields fields) const;
    void DropOldestSilent();
    LinkTime SubscribedAt(PanelEntry const &entry);
    LinkStatus StatusOf(CDeviceLink const &link);
    bool AwaitsClaim();
    void PickEntry(PanelEntry const &entry);
    CDeviceLink *FindLink(ClientId id);
    void Hello(CDeviceLink &link, LinkFrame const &frame);
    DWORD CheckHello(CDeviceLink &link, CLinkReader &reader, BYTE *pUse, std::string *pstrWanted);
    void LinkUp(CDeviceLink &link);
    std::string GiveAddress(std::string const &strWanted);
    CDeviceLink *FindLocal(std::string const &strAddress);
    void Request(CDeviceLink &link, LinkFrame const &frame);
    DWORD Get(CLinkReader &reader, int nRow, LinkBytes *pRest);
    DWORD Set(CDeviceLink &link, CLinkReader &reader, int nRow);
    DWORD Trap(CDeviceLink &link, CLinkReader &reader, int nRow);
    DWORD UnTrap(CDeviceLink &link, CLinkReader &reader, int nRow);
    void LogSet(CDeviceLink const &link, int nRow, LinkBytes const &value, DWORD dwResult);
    void Answer(CDeviceLink &link, LinkFrame const &request, DWORD dwResult, LinkBytes rest = {});
    // To so many clients; fields, if any, say what it comes from.
    std::size_t Publish(ObjectChange const &change, Fields const &fields = {});
    bool SendTrap(CDeviceLink &link, int nRow, LinkBytes const &value, Fields const &fields = {});
    void DropLink(CDeviceLink &link, std::string const &strReason);
    void Kick(LinkAddress const &to, std::string const &strText, DWORD dwPick = 0);
    void SendDatagram(LinkAddress const &to, std::string const &strDatagram);
    void OnFind(DiscoveryFind const &find);
    void AnswerJob(DiscoveryJob const &job);

    CSocketLibrary m_library;
    SoftDeviceConfig const m_config;
    std::string const m_strId;
    DWORD m_dwListen = 0;
    WORD m_wPort = 0;
    CLinkSocket m_listener;
    CLinkSocket m_datagrams;
    std::unique_ptr<CPrintPath> m_pPrintPath;
    std::shared_ptr<CDeviceLoop> m_pLoop;
    CDeviceLoop::Place m_place = 0;

    std::mutex m_mx;
    std::condition_variable m_cvPanel; // also: links and kicks that have come to their end
    bool m_fEnding = false;
    Links m_links;
    ClientId m_lastLink = 0;
    unsigned m_nLastAddress = 0;
    DWORD m_dwPicks = 0;
    DWORD m_dwPresses = 0;
    bool m_fPressTold = false; // of the last press, a client at least
    LinkTime m_turnAwayUntil = LinkTime::min();
    LinkTime m_acceptAgain = LinkTime::max(); // after a shortage
};

CSoftDeviceImpl::CSoftDeviceImpl(SoftDeviceConfig config)
    : m_model(config.strSerial),
      m_kicks([this](LinkAddress const &to, std::string const &str) { SendDatagram(to, str); },
              [this](DeviceEvent const &event) { Report(event.eKind, event.fields); }),
      m_config(std::move(config)), m_strId("MFG:Norvale;CLS:MFP;MDL:" + m_config.strModel + ";"),
      m_pLoop(m_config.pLoop)
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
    if (!Listen(pstrError) || !OpenDatagrams(pstrError)) {
        return false;
    }
    if (!m_config.strPrintPath.empty()) {
        m_pPrintPath = std::make_unique<CPrintPath>(
            m_config.strPrintPath, [this](DiscoveryFind const &find) { OnFind(find); },
            [this](std::string const &str) {
                Change([&](auto &device) { device.Report(eEV_PRINT_PATH, {{"text", str}}); });
            });
        if (!m_pPrintPath->Start(pstrError)) {
            return false;
        }
    }
    return Watch(pstrError);
}

bool CSoftDeviceImpl::Watch(std::string *pstrError)
{
    std::lock_guard lock(m_mx); // nothing is served before all is there
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
        std::lock_guard lock(m_mx);
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
    std::lock_guard lock(m_mx);
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
        m_config.onFrame({link.Id(), fFromClient, frame, eFate});
    }
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

void CSoftDeviceImpl::OnReady(DWORD dwSocket, bool fRead, bool)
{
    std::lock_guard lock(m_mx);
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
    std::lock_guard lock(m_mx);
    if (m_fEnding) {
        return LinkTime::max();
    }
    if (m_acceptAgain <= now) {
        m_acceptAgain = LinkTime::max();
        m_pLoop->Change(m_place, m_listener.Get(), kListener, /*fRead=*/true, /*fWrite=*/false);
    }
    LinkTime const kicks = m_kicks.Run(now);
    LinkTime const links = ServeLinks(now);
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
    Report(eEV_LINK_DOWN, {{"link", link.Id()}, {"reason", strReason}});
    ObjectChanges changes;
    for (PanelEntry const &entry : m_model.ClientGone(link.Id(), &changes)) {
        Report(eEV_ENTRY_GONE, {{"link", link.Id()}, {"text", entry.strText}});
    }
    for (ObjectChange const &change : changes) {
        Publish(change);
    }
    m_cvPanel.notify_all();
}

DWORD CSoftDeviceImpl::CheckHello(CDeviceLink &link, CLinkReader &reader, BYTE *pUse,
                                  std::string *pstrWanted)
{
    WORD const wVersion = reader.Word16();
    if (reader.IsGood() && wVersion != kLinkVersion) {
        return eLR_VERSION_MISMATCH; // what follows may look otherwise
    }
    *pUse = reader.Byte();
    *pstrWanted = reader.Text8();
    bool const fKnown = *pUse == eLU_PROBE || *pUse == eLU_LOCAL || *pUse == eLU_NETWORK;
    if (!reader.IsComplete() || !fKnown) {
        return eLR_BAD_REQUEST;
    }
    return *pUse == eLU_LOCAL && !IsLoopback(link.Peer()) ? DWORD{eLR_REFUSED} : DWORD{eLR_OK};
}

void CSoftDeviceImpl::Hello(CDeviceLink &link, LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    if (frame.kind != eLK_HELLO || reader.Word32() != kLinkMagic) {
        Report(eEV_LINK_REFUSED,
               {{"link", link.Id()}, {"reason", "it does not begin with a hello"}});
        link.fGone = true;
        CloseLink(link);
        return;
    }
    BYTE use = eLU_PROBE;
    std::string strWanted;
    DWORD const dwResult = CheckHello(link, reader, &use, &strWanted);
    bool const fStay = dwResult == eLR_OK && use != eLU_PROBE;
    if (fStay && use == eLU_LOCAL) {
        link.strAddress = GiveAddress(strWanted);
    }

    CLinkWriter writer;
    writer.Word16(kLinkVersion).Bytes8(link.strAddress.data(), link.strAddress.size());
    Answer(link, frame, dwResult, writer.Take());
    if (fStay) {
        link.use = use;
        LinkUp(link);
        return;
    }
    if (dwResult != eLR_OK) {
        Report(eEV_LINK_REFUSED,
               {{"link", link.Id()}, {"reason", "result " + std::to_string(dwResult)}});
    }
    link.fGone = true;
    link.PostEnd();
}

void CSoftDeviceImpl::LinkUp(CDeviceLink &link)
{
    link.fHello = true;
    bool const fLocal = link.use == eLU_LOCAL;
    Report(eEV_LINK_UP, {{"link", link.Id()},
                         {"use", fLocal ? "local" : "network"},
                         {"address", fLocal ? link.strAddress : FormatAddress(link.Peer())}});
}

CDeviceLink *CSoftDeviceImpl::FindLocal(std::string const &strAddress)
{
    for (auto const &pLink : m_links) {
        if (!pLink->fGone && pLink->use == eLU_LOCAL && pLink->strAddress == strAddress) {
            return pLink.get();
        }
    }
    return nullptr;
}

// Numbers are not given twice, so that one whose client is about to come back stays free for it.
std::string CSoftDeviceImpl::GiveAddress(std::string const &strWanted)
{
    if (IsAddressText(strWanted) && !FindLocal(strWanted)) {
        return strWanted;
    }
    std::string strAddress;
    do {
        strAddress = "LINK" + std::to_string(++m_nLastAddress);
    } while (FindLocal(strAddress));
    return strAddress;
}

// ---- Requests

void CSoftDeviceImpl::Answer(CDeviceLink &link, LinkFrame const &request, DWORD dwResult,
                             LinkBytes rest)
{
    CLinkWriter writer;
    writer.Word32(dwResult);
    if (dwResult == eLR_OK) {
        writer.Raw(rest.data(), rest.size());
    }
    auto const kind = static_cast<BYTE>(request.kind | kLinkAnswerBit);
    LinkFrame answer{kind, request.dwNumber, writer.Take()};
    bool const fGarble = !m_fMute && m_cGarble > 0;
    ReportFrame(link, answer, /*fFromClient=*/false,
                m_fMute              ? eFF_MUTE
                : fGarble            ? eFF_GARBLED
                : m_late.count() > 0 ? eFF_LATE
                                     : eFF_SENT);
    if (m_fMute) {
        return;
    }
    if (fGarble) {
        --m_cGarble;
        answer.payload = {0xFF, 0x01, 0x80}; // not even a whole result
    }
    link.Post(EncodeLinkFrame(answer), LinkClock::now() + m_late);
}

void CSoftDeviceImpl::Request(CDeviceLink &link, LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    if (frame.kind == eLK_PING) {
        return Answer(link, frame, eLR_OK);
    }
    link.lastRequest = LinkClock::now();
    m_cvPanel.notify_all();
    if (frame.kind == eLK_GET_DEVICE_ID) {
        CLinkWriter writer;
        writer.Bytes32(m_strId.data(), m_strId.size());
        return Answer(link, frame, eLR_OK, writer.Take());
    }
    int const nRow = FindDeviceObject(reader.Bytes8());
    LinkBytes rest;
    DWORD dwResult = eLR_BAD_REQUEST;
    if (reader.IsGood() && nRow < 0) {
        dwResult = eLR_NO_SUCH_OBJECT;
    } else if (frame.kind == eLK_GET) {
        dwResult = Get(reader, nRow, &rest);
    } else if (frame.kind == eLK_SET) {
        dwResult = Set(link, reader, nRow);
    } else if (frame.kind == eLK_TRAP) {
        dwResult = Trap(link, reader, nRow);
    } else if (frame.kind == eLK_UNTRAP) {
        dwResult = UnTrap(link, reader, nRow);
    }
    Answer(link, frame, dwResult, std::move(rest));
}

DWORD CSoftDeviceImpl::Get(CLinkReader &reader, int nRow, LinkBytes *pRest)
{
    BYTE const dataType = reader.Byte();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    LinkBytes value;
    DWORD const dwResult = m_model.Get(nRow, dataType, &value);
    CLinkWriter writer;
    *pRest = writer.Bytes32(value.data(), value.size()).Take();
    return dwResult;
}

DWORD CSoftDeviceImpl::Set(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    BYTE const dataType = reader.Byte();
    LinkBytes const value = reader.Bytes32();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    ObjectChanges changes;
    DWORD const dwResult =
        m_model.Set(link.Id(), link.use == eLU_NETWORK, nRow, dataType, value, &changes);
    LogSet(link, nRow, value, dwResult);
    for (ObjectChange const &change : changes) {
        Publish(change);
    }
    m_cvPanel.notify_all();
    return dwResult;
}

void CSoftDeviceImpl::LogSet(CDeviceLink const &link, int nRow, LinkBytes const &value,
                             DWORD dwResult)
{
    std::string const strText(value.begin(), value.end());
    bool const fZero = strText.find_first_not_of('\0') == std::string::npos;
    if (nRow == eDO_UI_DELETE_OPTION && dwResult == eLR_NO_SUCH_OBJECT) {
        return; // nothing has changed: a client's way to ask whether the device is there
    }
    if (nRow == eDO_SCAN_TOKEN && dwResult != eLR_OK) {
        Report(eEV_CLAIM_REFUSED, OfPress({{"link", link.Id()}}));
    } else if (dwResult != eLR_OK) {
        Report(
            eEV_SET_REFUSED,
            {{"object", g_deviceObjects[nRow].pszName}, {"result", dwResult}, {"link", link.Id()}});
    } else if (nRow == eDO_SCAN_TOKEN) {
        Report(fZero ? eEV_TOKEN_FREED : eEV_PRESS_CLAIMED, OfPress({{"link", link.Id()}}));
    } else if (nRow == eDO_UI_ADD_OPTION || nRow == eDO_UI_DELETE_OPTION) {
        Report(nRow == eDO_UI_ADD_OPTION ? eEV_ENTRY_ADDED : eEV_ENTRY_DELETED,
               {{"text", strText}, {"link", link.Id()}});
    }
}

DWORD CSoftDeviceImpl::Trap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    BYTE const dataType = reader.Byte();
    WORD const wTrapId = reader.Word16();
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    if (dataType != g_deviceObjects[nRow].dataType) {
        return eLR_WRONG_TYPE;
    }
    link.registrations[nRow] = {wTrapId, dataType};
    Report(eEV_TRAP_ON, {{"object", g_deviceObjects[nRow].pszName}, {"link", link.Id()}});
    return eLR_OK;
}

DWORD CSoftDeviceImpl::UnTrap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    if (!reader.IsComplete()) {
        return eLR_BAD_REQUEST;
    }
    if (link.registrations.erase(nRow) == 0) {
        return eLR_NO_SUCH_OBJECT;
    }
    Report(eEV_TRAP_OFF, {{"object", g_deviceObjects[nRow].pszName}, {"link", link.Id()}});
    return eLR_OK;
}

std::size_t CSoftDeviceImpl::Publish(ObjectChange const &change, Fields const &fields)
{
    return static_cast<std::size_t>(
        std::count_if(m_links.begin(), m_links.end(), [&](auto const &pLink) {
            return SendTrap(*pLink, change.nRow, change.value, fields);
        }));
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
        m_kicks.Echo(FromSockAddr(sa).wPort, std::string(buffer, static_cast<std::size_t>(n)));
    }
}

// ---- The print path

void CSoftDeviceImpl::OnFind(DiscoveryFind const &find)
{
    std::lock_guard lock(m_mx);
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

// ---- The front panel and misbehaviour

std::vector<PanelEntry> CSoftDeviceImpl::Panel()
{
    std::lock_guard lock(m_mx);
    return m_model.Panel();
}

CDeviceLink *CSoftDeviceImpl::FindLink(ClientId id)
{
    auto const it = std::find_if(m_links.begin(), m_links.end(),
                                 [&](auto const &pLink) { return pLink->Id() == id; });
    return it == m_links.end() ? nullptr : it->get();
}

// When the entry's client has, or will have, done with subscribing; LinkTime::max() for not yet.
LinkTime CSoftDeviceImpl::SubscribedAt(PanelEntry const &entry)
{
    CDeviceLink const *const pLink = FindLink(entry.owner);
    bool const fHears =
        pLink && (entry.fNetwork || pLink->registrations.contains(eDO_UI_SELECT_OPTION));
    return fHears ? pLink->lastRequest + kSubscribed : LinkTime::max();
}

bool CSoftDeviceImpl::WaitForEntry(std::string const &strPart, DWORD dwMilliseconds,
                                   std::string *pstrError)
{
    LinkTime const deadline = LinkClock::now() + milliseconds(dwMilliseconds);
    std::unique_lock lock(m_mx);
    for (;;) {
        bool fThere = false;
        LinkTime subscribed = LinkTime::max();
        for (PanelEntry const &entry : m_model.Panel()) {
            if (Holds(entry.strText, strPart)) {
                fThere = true;
                subscribed = std::min(subscribed, SubscribedAt(entry));
            }
        }
        LinkTime const now = LinkClock::now();
        if (subscribed <= now) {
            return true;
        }
        if (m_fEnding || now >= deadline) {
            return Fail(pstrError, fThere ? "the entry's client is not ready to hear of a pick"
                                          : "no such entry came: " + strPart);
        }
        m_cvPanel.wait_until(lock, std::min(subscribed, deadline));
    }
}

bool CSoftDeviceImpl::Pick(std::size_t nEntry, std::string *pstrError)
{
    std::lock_guard lock(m_mx);
    if (nEntry == 0 || nEntry > m_model.Panel().size()) {
        return Fail(pstrError, "there is no entry " + std::to_string(nEntry));
    }
    PickEntry(m_model.Panel()[nEntry - 1]);
    return true;
}

bool CSoftDeviceImpl::HasEntry(std::string const &strPart)
{
    std::lock_guard lock(m_mx);
    auto const &panel = m_model.Panel();
    return std::any_of(panel.begin(), panel.end(),
                       [&](PanelEntry const &entry) { return Holds(entry.strText, strPart); });
}

bool CSoftDeviceImpl::PickText(std::string const &strPart, std::string *pstrError)
{
    std::lock_guard lock(m_mx);
    auto const &panel = m_model.Panel();
    auto const it = std::find_if(panel.begin(), panel.end(), [&](PanelEntry const &entry) {
        return Holds(entry.strText, strPart);
    });
    if (it == panel.end()) {
        return Fail(pstrError, "no entry holds " + strPart);
    }
    PickEntry(*it);
    return true;
}

bool CSoftDeviceImpl::PickId(DWORD dwId, std::string *pstrError)
{
    std::lock_guard lock(m_mx);
    auto const &panel = m_model.Panel();
    auto const it = std::find_if(panel.begin(), panel.end(),
                                 [&](PanelEntry const &entry) { return entry.dwId == dwId; });
    if (it == panel.end()) {
        return Fail(pstrError, "that entry has gone");
    }
    PickEntry(*it);
    return true;
}

void CSoftDeviceImpl::PickEntry(PanelEntry const &entry)
{
    DeviceEventField const pick{"pick", ++m_dwPicks};
    Report(eEV_PICKED, {{"text", entry.strText}, {"link", entry.owner}, pick});
    if (!entry.fNetwork) {
        Publish(m_model.Select(entry.strText), {pick});
        return;
    }
    std::string strAddress;
    LinkAddress to;
    if (FindClause(entry.strText, "NETADDR=", &strAddress) && ParseHostAndPort(strAddress, &to)) {
        Kick(to, entry.strText, m_dwPicks);
    } else {
        Report(
            eEV_NOT_SENT,
            {{"reason", "the entry has no address a.b.c.d:port"}, {"text", entry.strText}, pick});
    }
}

std::size_t CSoftDeviceImpl::SetFeeder(bool fOn)
{
    std::lock_guard lock(m_mx);
    Report(eEV_FEEDER, {{"state", fOn ? "on" : "off"}});
    return Publish(m_model.SetFeeder(fOn));
}

std::size_t CSoftDeviceImpl::PressButton()
{
    std::lock_guard lock(m_mx);
    ++m_dwPresses;
    Report(eEV_BUTTON, OfPress({}));
    std::size_t const cTold = Publish(m_model.PressButton(), OfPress({}));
    m_fPressTold = cTold > 0;
    return cTold;
}

std::size_t CSoftDeviceImpl::AnnounceFax()
{
    std::lock_guard lock(m_mx);
    Report(eEV_FAX);
    return Publish(m_model.AnnounceFax());
}

LinkStatus CSoftDeviceImpl::StatusOf(CDeviceLink const &link)
{
    bool const fNetwork = link.use == eLU_NETWORK;
    LinkStatus status{
        link.Id(), fNetwork, fNetwork ? FormatAddress(link.Peer()) : link.strAddress, 0, {}};
    auto const &panel = m_model.Panel();
    status.cEntries = static_cast<std::size_t>(std::count_if(
        panel.begin(), panel.end(), [&](auto const &entry) { return entry.owner == link.Id(); }));
    for (auto const &[nRow, registration] : link.registrations) {
        status.objects.push_back(g_deviceObjects[nRow].pszName);
    }
    return status;
}

DeviceStatus CSoftDeviceImpl::Status()
{
    std::lock_guard lock(m_mx);
    DeviceStatus status;
    for (auto const &pLink : m_links) {
        if (IsUp(*pLink)) {
            status.links.push_back(StatusOf(*pLink));
        }
    }
    status.fFeeder = m_model.Value(eDO_NOT_READY_SOURCE_SCANNER) == WordValue(kFeederBit);
    status.fFax = m_model.Value(eDO_FAX_UPLOAD) == WordValue(kFaxWaiting);
    status.fPressWaits = m_model.IsPressed();
    status.tokenHolder = m_model.TokenHolder();
    status.kicks = m_kicks.Waiting();
    status.habits = {m_kicks.Counts(), m_model.ClaimsToRefuse(), m_cGarble,
                     static_cast<DWORD>(m_late.count()), m_fMute};
    status.dwCutMs = m_turnAwayUntil > LinkClock::now() ? MillisecondsUntil(m_turnAwayUntil) : 0;
    return status;
}

// A client has been told of a press, and may still have something to do about it.
bool CSoftDeviceImpl::AwaitsClaim()
{
    bool const fHeard = std::any_of(m_links.begin(), m_links.end(), [](auto const &pLink) {
        return pLink->registrations.contains(eDO_SCANNER_BUTTON_STATUS);
    });
    return m_model.TokenHolder() != 0 || (m_fPressTold && fHeard && m_model.IsPressed());
}

std::string CSoftDeviceImpl::Finish(DWORD dwMilliseconds)
{
    LinkTime const deadline = LinkClock::now() + milliseconds(dwMilliseconds);
    std::unique_lock lock(m_mx);
    m_turnAwayUntil = LinkTime::max();
    bool const fSettled = m_cvPanel.wait_until(
        lock, deadline, [&] { return m_fEnding || (m_kicks.IsIdle() && !AwaitsClaim()); });
    for (auto const &pLink : m_links) {
        if (IsUp(*pLink)) {
            pLink->PostFinish();
        }
    }
    Wake();
    bool const fReceived = m_cvPanel.wait_until(lock, deadline, [&] {
        return m_fEnding || std::none_of(m_links.begin(), m_links.end(),
                                         [](auto const &pLink) { return IsUp(*pLink); });
    });
    std::string strRest;
    if (!fSettled) {
        strRest = m_kicks.IsIdle() ? "a press of the button has not been dealt with"
                                   : std::to_string(m_kicks.Waiting().size()) +
                                         " datagrams have not been echoed";
    } else if (!fReceived) {
        strRest = "a client has not received all";
    }
    return strRest;
}

void CSoftDeviceImpl::CutLinks(DWORD dwMilliseconds)
{
    std::lock_guard lock(m_mx);
    Report(eEV_CUT, {{"ms", dwMilliseconds}});
    m_turnAwayUntil = LinkClock::now() + milliseconds(dwMilliseconds);
    for (auto const &pLink : m_links) {
        DropLink(*pLink, "cut");
    }
    Wake();
}

void CSoftDeviceImpl::SendGarbage()
{
    std::lock_guard lock(m_mx);
    Report(eEV_GARBAGE);
    for (auto const &pLink : m_links) {
        pLink->Post(LinkBytes(64, 0xA5), LinkTime::min()); // as a length, far too large
    }
    Wake();
}

// ---- The public face

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
    return m_pImpl->Config();
}

std::vector<PanelEntry> CSoftDevice::Panel() const
{
    return m_pImpl->Panel();
}

bool CSoftDevice::WaitForEntry(std::string const &strPart, DWORD dwMilliseconds,
                               std::string *pstrError) const
{
    return m_pImpl->WaitForEntry(strPart, dwMilliseconds, pstrError);
}

bool CSoftDevice::Pick(std::size_t nEntry, std::string *pstrError)
{
    return m_pImpl->Pick(nEntry, pstrError);
}

bool CSoftDevice::PickId(DWORD dwId, std::string *pstrError)
{
    return m_pImpl->PickId(dwId, pstrError);
}

bool CSoftDevice::HasEntry(std::string const &strPart) const
{
    return m_pImpl->HasEntry(strPart);
}

bool CSoftDevice::PickText(std::string const &strPart, std::string *pstrError)
{
    return m_pImpl->PickText(strPart, pstrError);
}

std::size_t CSoftDevice::SetFeeder(bool fOn)
{
    return m_pImpl->SetFeeder(fOn);
}

std::size_t CSoftDevice::PressButton()
{
    return m_pImpl->PressButton();
}

std::size_t CSoftDevice::AnnounceFax()
{
    return m_pImpl->AnnounceFax();
}

DeviceStatus CSoftDevice::Status() const
{
    return m_pImpl->Status();
}

std::string CSoftDevice::Finish(DWORD dwMilliseconds)
{
    return m_pImpl->Finish(dwMilliseconds);
}

void CSoftDevice::CutLinks(DWORD dwMilliseconds)
{
    m_pImpl->CutLinks(dwMilliseconds);
}

void CSoftDevice::DropDatagrams(unsigned c)
{
    m_pImpl->SetHabit("drop", c, [&](auto &device) { device.m_kicks.Drop(c); });
}

void CSoftDevice::RepeatDatagrams(unsigned c)
{
    m_pImpl->SetHabit("repeat", c, [&](auto &device) { device.m_kicks.Repeat(c); });
}

void CSoftDevice::ReorderDatagrams(unsigned c)
{
    m_pImpl->SetHabit("reorder", c, [&](auto &device) { device.m_kicks.Reorder(c); });
}

void CSoftDevice::LoseEchoes(unsigned c)
{
    m_pImpl->SetHabit("lose-echo", c, [&](auto &device) { device.m_kicks.LoseEchoes(c); });
}

void CSoftDevice::SetDatagramOdds(KickOdds const &odds)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.SetOdds(odds); });
}

void CSoftDevice::RefuseClaims(unsigned c)
{
    m_pImpl->SetHabit("refuse-claim", c, [&](auto &device) { device.m_model.RefuseClaims(c); });
}

void CSoftDevice::SetLate(DWORD dwMilliseconds)
{
    m_pImpl->SetHabit("late", dwMilliseconds,
                      [&](auto &device) { device.m_late = milliseconds(dwMilliseconds); });
}

void CSoftDevice::SetMute(bool fMute)
{
    m_pImpl->SetHabit("mute", fMute, [&](auto &device) { device.m_fMute = fMute; });
}

void CSoftDevice::SendGarbage()
{
    m_pImpl->SendGarbage();
}

void CSoftDevice::GarbleAnswers(unsigned c)
{
    m_pImpl->SetHabit("garble", c, [&](auto &device) { device.m_cGarble = c; });
}
