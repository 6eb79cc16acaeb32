#include "device/soft_device.h"

#include "device/device_link.h"
#include "device/discovery_job.h"
#include "device/print_path.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

using std::chrono::milliseconds;

namespace {

constexpr size_t kMaxLinks = 512;
constexpr milliseconds kAcceptPause{50};
constexpr DWORD kLoopbackNet = 127;

// A log line must stay one line whatever a client wrote.
std::string Printable(std::string const &str)
{
    std::string strResult(str);
    std::replace_if(
        strResult.begin(), strResult.end(),
        [](char ch) { return static_cast<unsigned char>(ch) < ' ' || ch == 0x7F; }, '?');
    return strResult;
}

bool IsAddressText(std::string const &str)
{
    return !str.empty() && str.size() <= kLinkMaxAddressText &&
           std::all_of(str.begin(), str.end(), [](char ch) {
               return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') ||
                      (ch >= 'a' && ch <= 'z') || ch == '.' || ch == '-' || ch == '_';
           });
}

bool IsLoopback(LinkAddress const &address)
{
    return address.dwHost >> 24 == kLoopbackNet;
}

} // namespace

/*
 * Lock: m_mx guards the device, everything below it included; before the lock of a link, after none.
 * Links are destroyed without it, since their threads may be waiting for it.
 */
class CSoftDeviceImpl final : public CDeviceLink::Owner {
public:
    explicit CSoftDeviceImpl(SoftDeviceConfig config);
    ~CSoftDeviceImpl() { Stop(); }

    bool Start(std::string *pstrError);
    void Stop();
    WORD Port() const { return m_wPort; }

    std::vector<PanelEntry> Panel();
    bool WaitForEntry(std::string const &strPart, DWORD dwMilliseconds);
    bool Pick(size_t nEntry);
    void Happen(char const *pszWhat, ObjectChange (CDeviceModel::*pfn)());
    void SetFeeder(bool fOn);
    void CutLinks(DWORD dwMilliseconds);
    void SendGarbage();

    // Runs fn under the lock, and the datagrams that became due by it.
    template <class Fn>
    void Change(Fn fn)
    {
        std::lock_guard lock(m_mx);
        fn(*this);
        m_cvTimer.notify_all();
    }

    void OnFrame(CDeviceLink &link, LinkFrame const &frame) override;
    void OnEnd(CDeviceLink &link, std::string const &strReason) override;

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
    void Accept();
    bool Admit(SOCKET s);
    Links TakeFinished();
    void ReceiveEchoes();
    void RunTimer();
    bool IsEnding();

    // With the lock held.
    void Log(std::string const &strLine);
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
    void Publish(ObjectChange const &change);
    bool SendTrap(CDeviceLink &link, int nRow, LinkBytes const &value);
    void DropLink(CDeviceLink &link, std::string const &strReason);
    void Kick(LinkAddress const &to, std::string const &strText);
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
    std::thread m_thAccept;
    std::thread m_thEchoes;
    std::thread m_thTimer;

    std::mutex m_mx;
    std::condition_variable m_cvPanel;
    std::condition_variable m_cvTimer; // also: the end
    bool m_fEnding = false;
    Links m_links;
    ClientId m_lastLink = 0;
    unsigned m_nLastAddress = 0;
    LinkTime m_turnAwayUntil = LinkTime::min();
};

CSoftDeviceImpl::CSoftDeviceImpl(SoftDeviceConfig config)
    : m_kicks([this](LinkAddress const &to, std::string const &str) { SendDatagram(to, str); },
              [this](std::string const &str) { Log(str); }),
      m_config(std::move(config)), m_strId("MFG:Norvale;CLS:MFP;MDL:" + m_config.strModel + ";")
{
    m_kicks.SetPace(milliseconds(m_config.dwKickIntervalMs), m_config.cKickTries);
}

// ---- Starting and stopping

bool CSoftDeviceImpl::Start(std::string *pstrError)
{
    if (!Listen(pstrError) || !OpenDatagrams(pstrError))
        return false;
    if (!m_config.strPrintPath.empty()) {
        m_pPrintPath = std::make_unique<CPrintPath>(
            m_config.strPrintPath, [this](DiscoveryFind const &find) { OnFind(find); },
            [this](std::string const &str) { Change([&](auto &device) { device.Log(str); }); });
        if (!m_pPrintPath->Start(pstrError))
            return false;
    }
    m_thTimer = std::thread([this] { RunTimer(); });
    m_thEchoes = std::thread([this] { ReceiveEchoes(); });
    m_thAccept = std::thread([this] { Accept(); });
    return true;
}

bool CSoftDeviceImpl::Listen(std::string *pstrError)
{
    if (!ParseDottedAddress(m_config.strListen, &m_dwListen)) {
        *pstrError = "listen address " + m_config.strListen + " is not of the form a.b.c.d";
        return false;
    }
    m_listener.Set(ws::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sa = ToSockAddr({m_dwListen, m_config.wPort});
    int cb = sizeof sa;
    auto *const pAddress = reinterpret_cast<sockaddr *>(&sa);
    if (ws::bind(m_listener.Get(), pAddress, cb) != 0 || ws::listen(m_listener.Get(), 64) != 0 ||
        ws::getsockname(m_listener.Get(), pAddress, &cb) != 0) {
        *pstrError = "cannot listen at " + FormatAddress({m_dwListen, m_config.wPort}) +
                     ", error " + std::to_string(ws::WSAGetLastError());
        return false;
    }
    m_wPort = FromSockAddr(sa).wPort;
    return true;
}

bool CSoftDeviceImpl::OpenDatagrams(std::string *pstrError)
{
    m_datagrams.Set(ws::socket(AF_INET, SOCK_DGRAM, 0));
    // From the address that clients know; but one from a loopback address would reach nobody outside.
    DWORD const dwFrom = m_dwListen >> 24 == kLoopbackNet ? 0 : m_dwListen;
    sockaddr_in const sa = ToSockAddr({dwFrom, 0});
    if (ws::bind(m_datagrams.Get(), reinterpret_cast<sockaddr const *>(&sa), sizeof sa) != 0) {
        *pstrError =
            "cannot open a datagram socket, error " + std::to_string(ws::WSAGetLastError());
        return false;
    }
    return true;
}

void CSoftDeviceImpl::Stop()
{
    {
        std::lock_guard lock(m_mx);
        m_fEnding = true;
        m_cvTimer.notify_all();
        m_cvPanel.notify_all();
    }
    m_listener.Close();
    m_datagrams.Close();
    for (std::thread *pThread : {&m_thAccept, &m_thEchoes, &m_thTimer}) {
        if (pThread->joinable())
            pThread->join();
    }
    m_pPrintPath.reset();
    Links links;
    {
        std::lock_guard lock(m_mx);
        links.swap(m_links);
    }
}

bool CSoftDeviceImpl::IsEnding()
{
    std::lock_guard lock(m_mx);
    return m_fEnding;
}

void CSoftDeviceImpl::Log(std::string const &strLine)
{
    if (m_config.log)
        m_config.log(Printable(strLine));
}

// ---- Links

void CSoftDeviceImpl::Accept()
{
    while (!IsEnding()) {
        SOCKET const s = ws::accept(m_listener.Get(), nullptr, nullptr);
        if (s == INVALID_SOCKET) { // the end, or a shortage that may pass
            std::unique_lock lock(m_mx);
            m_cvTimer.wait_for(lock, kAcceptPause, [&] { return m_fEnding; });
            continue;
        }
        if (!Admit(s))
            ws::closesocket(s);
        TakeFinished(); // destroys them here, without the lock
    }
}

bool CSoftDeviceImpl::Admit(SOCKET s)
{
    std::lock_guard lock(m_mx);
    if (m_fEnding || LinkClock::now() < m_turnAwayUntil || m_links.size() == kMaxLinks)
        return false;
    m_links.push_back(std::make_unique<CDeviceLink>(++m_lastLink, s, *this));
    m_links.back()->Start();
    return true;
}

CSoftDeviceImpl::Links CSoftDeviceImpl::TakeFinished()
{
    std::lock_guard lock(m_mx);
    auto const it = std::stable_partition(m_links.begin(), m_links.end(),
                                          [](auto const &pLink) { return !pLink->IsFinished(); });
    Links finished(std::make_move_iterator(it), std::make_move_iterator(m_links.end()));
    m_links.erase(it, m_links.end());
    return finished;
}

void CSoftDeviceImpl::OnFrame(CDeviceLink &link, LinkFrame const &frame)
{
    std::lock_guard lock(m_mx);
    if (link.fGone)
        return;
    if (link.fHello)
        Request(link, frame);
    else
        Hello(link, frame);
}

void CSoftDeviceImpl::OnEnd(CDeviceLink &link, std::string const &strReason)
{
    std::lock_guard lock(m_mx);
    DropLink(link, strReason);
}

// The device forgets the link at once; its threads may still have to notice.
void CSoftDeviceImpl::DropLink(CDeviceLink &link, std::string const &strReason)
{
    if (link.fGone)
        return;
    link.fGone = true;
    link.Close();
    link.registrations.clear();
    if (!link.fHello || m_fEnding)
        return;
    std::string const strNumber = std::to_string(link.Id());
    Log("link " + strNumber + " down: " + strReason);
    ObjectChanges changes;
    for (PanelEntry const &entry : m_model.ClientGone(link.Id(), &changes))
        Log("entry gone with link " + strNumber + ": " + entry.strText);
    for (ObjectChange const &change : changes)
        Publish(change);
    m_cvPanel.notify_all();
}

DWORD CSoftDeviceImpl::CheckHello(CDeviceLink &link, CLinkReader &reader, BYTE *pUse,
                                  std::string *pstrWanted)
{
    WORD const wVersion = reader.Word16();
    if (reader.IsGood() && wVersion != kLinkVersion)
        return eLR_VERSION_MISMATCH; // what follows may look otherwise
    *pUse = reader.Byte();
    *pstrWanted = reader.Text8();
    bool const fKnown = *pUse == eLU_PROBE || *pUse == eLU_LOCAL || *pUse == eLU_NETWORK;
    if (!reader.IsComplete() || !fKnown)
        return eLR_BAD_REQUEST;
    return *pUse == eLU_LOCAL && !IsLoopback(link.Peer()) ? DWORD{eLR_REFUSED} : DWORD{eLR_OK};
}

void CSoftDeviceImpl::Hello(CDeviceLink &link, LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    if (frame.kind != eLK_HELLO || reader.Word32() != kLinkMagic) {
        Log("link " + std::to_string(link.Id()) + " refused: it does not begin with a hello");
        link.fGone = true;
        link.Close();
        return;
    }
    BYTE use = eLU_PROBE;
    std::string strWanted;
    DWORD const dwResult = CheckHello(link, reader, &use, &strWanted);
    bool const fStay = dwResult == eLR_OK && use != eLU_PROBE;
    if (fStay && use == eLU_LOCAL)
        link.strAddress = GiveAddress(strWanted);

    CLinkWriter writer;
    writer.Word16(kLinkVersion).Bytes8(link.strAddress.data(), link.strAddress.size());
    Answer(link, frame, dwResult, writer.Take());
    if (fStay) {
        link.use = use;
        LinkUp(link);
        return;
    }
    if (dwResult != eLR_OK)
        Log("link " + std::to_string(link.Id()) + " refused: result " + std::to_string(dwResult));
    link.fGone = true;
    link.PostEnd();
}

void CSoftDeviceImpl::LinkUp(CDeviceLink &link)
{
    link.fHello = true;
    Log("link " + std::to_string(link.Id()) + " up: " +
        (link.use == eLU_LOCAL ? "local " + link.strAddress
                               : "network " + FormatAddress(link.Peer())));
}

CDeviceLink *CSoftDeviceImpl::FindLocal(std::string const &strAddress)
{
    for (auto const &pLink : m_links) {
        if (!pLink->fGone && pLink->use == eLU_LOCAL && pLink->strAddress == strAddress)
            return pLink.get();
    }
    return nullptr;
}

// Numbers are not given twice, so that one whose client is about to come back stays free for it.
std::string CSoftDeviceImpl::GiveAddress(std::string const &strWanted)
{
    if (IsAddressText(strWanted) && !FindLocal(strWanted))
        return strWanted;
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
    if (m_fMute)
        return;
    CLinkWriter writer;
    if (m_cGarble > 0) {
        --m_cGarble;
        writer.Raw("\xFF\x01\x80", 3); // not even a whole result
    } else {
        writer.Word32(dwResult);
        if (dwResult == eLR_OK)
            writer.Raw(rest.data(), rest.size());
    }
    auto const kind = static_cast<BYTE>(request.kind | kLinkAnswerBit);
    link.Post(EncodeLinkFrame({kind, request.dwNumber, writer.Take()}), LinkClock::now() + m_late);
}

void CSoftDeviceImpl::Request(CDeviceLink &link, LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    if (frame.kind == eLK_PING)
        return Answer(link, frame, eLR_OK);
    if (frame.kind == eLK_GET_DEVICE_ID) {
        CLinkWriter writer;
        writer.Bytes32(m_strId.data(), m_strId.size());
        return Answer(link, frame, eLR_OK, writer.Take());
    }
    int const nRow = FindDeviceObject(reader.Bytes8());
    LinkBytes rest;
    DWORD dwResult = eLR_BAD_REQUEST;
    if (reader.IsGood() && nRow < 0)
        dwResult = eLR_NO_SUCH_OBJECT;
    else if (frame.kind == eLK_GET)
        dwResult = Get(reader, nRow, &rest);
    else if (frame.kind == eLK_SET)
        dwResult = Set(link, reader, nRow);
    else if (frame.kind == eLK_TRAP)
        dwResult = Trap(link, reader, nRow);
    else if (frame.kind == eLK_UNTRAP)
        dwResult = UnTrap(link, reader, nRow);
    Answer(link, frame, dwResult, std::move(rest));
}

DWORD CSoftDeviceImpl::Get(CLinkReader &reader, int nRow, LinkBytes *pRest)
{
    BYTE const dataType = reader.Byte();
    if (!reader.IsComplete())
        return eLR_BAD_REQUEST;
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
    if (!reader.IsComplete())
        return eLR_BAD_REQUEST;
    ObjectChanges changes;
    DWORD const dwResult =
        m_model.Set(link.Id(), link.use == eLU_NETWORK, nRow, dataType, value, &changes);
    LogSet(link, nRow, value, dwResult);
    for (ObjectChange const &change : changes)
        Publish(change);
    m_cvPanel.notify_all();
    return dwResult;
}

void CSoftDeviceImpl::LogSet(CDeviceLink const &link, int nRow, LinkBytes const &value,
                             DWORD dwResult)
{
    std::string const strLink = " (link " + std::to_string(link.Id()) + ")";
    std::string const strText(value.begin(), value.end());
    bool const fZero = strText.find_first_not_of('\0') == std::string::npos;
    if (nRow == eDO_SCAN_TOKEN && dwResult != eLR_OK)
        Log("claim refused" + strLink);
    else if (dwResult != eLR_OK)
        Log(std::string(g_deviceObjects[nRow].pszName) + " refused: result " +
            std::to_string(dwResult) + strLink);
    else if (nRow == eDO_SCAN_TOKEN)
        Log((fZero ? "token freed" : "press claimed") + strLink);
    else if (nRow == eDO_UI_ADD_OPTION)
        Log("entry added: " + strText + strLink);
    else if (nRow == eDO_UI_DELETE_OPTION)
        Log("entry deleted: " + strText + strLink);
}

DWORD CSoftDeviceImpl::Trap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    BYTE const dataType = reader.Byte();
    WORD const wTrapId = reader.Word16();
    if (!reader.IsComplete())
        return eLR_BAD_REQUEST;
    if (dataType != g_deviceObjects[nRow].dataType)
        return eLR_WRONG_TYPE;
    link.registrations[nRow] = {wTrapId, dataType};
    Log(std::string("trap on: ") + g_deviceObjects[nRow].pszName + " (link " +
        std::to_string(link.Id()) + ")");
    return eLR_OK;
}

DWORD CSoftDeviceImpl::UnTrap(CDeviceLink &link, CLinkReader &reader, int nRow)
{
    if (!reader.IsComplete())
        return eLR_BAD_REQUEST;
    if (link.registrations.erase(nRow) == 0)
        return eLR_NO_SUCH_OBJECT;
    Log(std::string("trap off: ") + g_deviceObjects[nRow].pszName + " (link " +
        std::to_string(link.Id()) + ")");
    return eLR_OK;
}

void CSoftDeviceImpl::Publish(ObjectChange const &change)
{
    for (auto const &pLink : m_links)
        SendTrap(*pLink, change.nRow, change.value);
}

// False if that client has not registered for the object.
bool CSoftDeviceImpl::SendTrap(CDeviceLink &link, int nRow, LinkBytes const &value)
{
    auto const it = link.registrations.find(nRow);
    if (it == link.registrations.end())
        return false;
    CLinkWriter writer;
    writer.Word16(it->second.wTrapId).Byte(it->second.dataType);
    writer.Bytes32(value.data(), value.size());
    link.Post(EncodeLinkFrame({eLK_TRAP_VALUE, 0, writer.Take()}), LinkTime::min());
    Log(std::string("trap sent: ") + g_deviceObjects[nRow].pszName + " (link " +
        std::to_string(link.Id()) + ")");
    return true;
}

// ---- Datagrams

void CSoftDeviceImpl::Kick(LinkAddress const &to, std::string const &strText)
{
    if (!m_kicks.Add(to, strText))
        Log("not sent, too long or too many are waiting: " + strText);
    m_cvTimer.notify_all();
}

void CSoftDeviceImpl::SendDatagram(LinkAddress const &to, std::string const &strDatagram)
{
    sockaddr_in const sa = ToSockAddr(to);
    // A failure is like a loss on the way: the next try follows.
    static_cast<void>(ws::sendto(m_datagrams.Get(), strDatagram.data(),
                                 static_cast<int>(strDatagram.size()), 0,
                                 reinterpret_cast<sockaddr const *>(&sa), sizeof sa));
}

void CSoftDeviceImpl::ReceiveEchoes()
{
    char buffer[CKickSender::kMaxDatagram + 1]; // longer ones are no echo of ours
    while (!IsEnding()) {
        sockaddr_in sa{};
        int cb = sizeof sa;
        int const n = ws::recvfrom(m_datagrams.Get(), buffer, sizeof buffer, 0,
                                   reinterpret_cast<sockaddr *>(&sa), &cb);
        std::unique_lock lock(m_mx);
        if (n >= 0)
            m_kicks.Echo(FromSockAddr(sa).wPort, std::string(buffer, static_cast<size_t>(n)));
        else if (ws::WSAGetLastError() != WSAECONNRESET) // an earlier one found nobody: goes on
            m_cvTimer.wait_for(lock, kAcceptPause, [&] { return m_fEnding; });
        m_cvTimer.notify_all();
    }
}

void CSoftDeviceImpl::RunTimer()
{
    std::unique_lock lock(m_mx);
    while (!m_fEnding) {
        LinkTime const next = m_kicks.Run(LinkClock::now());
        if (next == LinkTime::max())
            m_cvTimer.wait(lock);
        else
            m_cvTimer.wait_until(lock, next);
    }
}

// ---- The print path

void CSoftDeviceImpl::OnFind(DiscoveryFind const &find)
{
    std::lock_guard lock(m_mx);
    if (find.strRefusal.empty())
        AnswerJob(find.job);
    else
        Log("job refused: " + find.strRefusal);
}

void CSoftDeviceImpl::AnswerJob(DiscoveryJob const &job)
{
    std::string const strText = "TYPE=<ECHO>;SRVQ=" + job.strNumber +
                                ";MODEL=" + m_config.strModel + ";NETADDR=" + job.strAddress + ";";
    LinkAddress to;
    CDeviceLink *const pLink = FindLocal(job.strAddress);
    bool const fNetwork = ParseHostAndPort(job.strAddress, &to);
    if (!fNetwork && !pLink) {
        Log("job refused: its address is neither a.b.c.d:port nor that of a local link: " +
            job.strAddress);
        return;
    }
    Log("job taken: SRVQ=" + job.strNumber + " from " + job.strAddress);
    if (fNetwork)
        Kick(to, strText);
    else if (!SendTrap(*pLink, eDO_UI_SELECT_OPTION, LinkBytes(strText.begin(), strText.end())))
        Log("job not answered: " + job.strAddress + " has not registered for " +
            g_deviceObjects[eDO_UI_SELECT_OPTION].pszName);
}

// ---- The front panel and misbehaviour

std::vector<PanelEntry> CSoftDeviceImpl::Panel()
{
    std::lock_guard lock(m_mx);
    return m_model.Panel();
}

bool CSoftDeviceImpl::WaitForEntry(std::string const &strPart, DWORD dwMilliseconds)
{
    auto const fThere = [&] {
        auto const &panel = m_model.Panel();
        return std::any_of(panel.begin(), panel.end(), [&](PanelEntry const &entry) {
            return entry.strText.find(strPart) != std::string::npos;
        });
    };
    std::unique_lock lock(m_mx);
    m_cvPanel.wait_for(lock, milliseconds(dwMilliseconds), [&] { return m_fEnding || fThere(); });
    return fThere();
}

bool CSoftDeviceImpl::Pick(size_t nEntry)
{
    std::lock_guard lock(m_mx);
    if (nEntry == 0 || nEntry > m_model.Panel().size())
        return false;
    PanelEntry const entry = m_model.Panel()[nEntry - 1];
    Log("picked: " + entry.strText);
    if (!entry.fNetwork) {
        Publish(m_model.Select(entry.strText));
        return true;
    }
    std::string strAddress;
    LinkAddress to;
    if (FindClause(entry.strText, "NETADDR=", &strAddress) && ParseHostAndPort(strAddress, &to))
        Kick(to, entry.strText);
    else
        Log("not sent, the entry has no address a.b.c.d:port: " + entry.strText);
    return true;
}

void CSoftDeviceImpl::Happen(char const *pszWhat, ObjectChange (CDeviceModel::*pfn)())
{
    std::lock_guard lock(m_mx);
    Log(pszWhat);
    Publish((m_model.*pfn)());
}

void CSoftDeviceImpl::SetFeeder(bool fOn)
{
    std::lock_guard lock(m_mx);
    Log(fOn ? "feeder: on" : "feeder: off");
    Publish(m_model.SetFeeder(fOn));
}

void CSoftDeviceImpl::CutLinks(DWORD dwMilliseconds)
{
    std::lock_guard lock(m_mx);
    Log("links cut for " + std::to_string(dwMilliseconds) + " ms");
    m_turnAwayUntil = LinkClock::now() + milliseconds(dwMilliseconds);
    for (auto const &pLink : m_links)
        DropLink(*pLink, "cut");
}

void CSoftDeviceImpl::SendGarbage()
{
    std::lock_guard lock(m_mx);
    Log("garbage sent");
    for (auto const &pLink : m_links)
        pLink->Post(LinkBytes(64, 0xA5), LinkTime::min()); // as a length, far too large
}

// ---- The public face

CSoftDevice::CSoftDevice(SoftDeviceConfig config)
    : m_pImpl(std::make_unique<CSoftDeviceImpl>(std::move(config)))
{
}

CSoftDevice::~CSoftDevice() = default;

bool CSoftDevice::Start(std::string *pstrError)
{
    return m_pImpl->Start(pstrError);
}

void CSoftDevice::Stop()
{
    m_pImpl->Stop();
}

WORD CSoftDevice::Port() const
{
    return m_pImpl->Port();
}

std::vector<PanelEntry> CSoftDevice::Panel() const
{
    return m_pImpl->Panel();
}

bool CSoftDevice::WaitForEntry(std::string const &strPart, DWORD dwMilliseconds) const
{
    return m_pImpl->WaitForEntry(strPart, dwMilliseconds);
}

bool CSoftDevice::Pick(size_t nEntry)
{
    return m_pImpl->Pick(nEntry);
}

void CSoftDevice::SetFeeder(bool fOn)
{
    m_pImpl->SetFeeder(fOn);
}

void CSoftDevice::PressButton()
{
    m_pImpl->Happen("button: pressed", &CDeviceModel::PressButton);
}

void CSoftDevice::AnnounceFax()
{
    m_pImpl->Happen("fax: waits", &CDeviceModel::AnnounceFax);
}

void CSoftDevice::CutLinks(DWORD dwMilliseconds)
{
    m_pImpl->CutLinks(dwMilliseconds);
}

void CSoftDevice::DropDatagrams(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.Drop(c); });
}

void CSoftDevice::RepeatDatagrams(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.Repeat(c); });
}

void CSoftDevice::ReorderDatagrams(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.Reorder(c); });
}

void CSoftDevice::LoseEchoes(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.LoseEchoes(c); });
}

void CSoftDevice::SetDatagramOdds(KickOdds const &odds)
{
    m_pImpl->Change([&](auto &device) { device.m_kicks.SetOdds(odds); });
}

void CSoftDevice::RefuseClaims(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_model.RefuseClaims(c); });
}

void CSoftDevice::SetLate(DWORD dwMilliseconds)
{
    m_pImpl->Change([&](auto &device) { device.m_late = milliseconds(dwMilliseconds); });
}

void CSoftDevice::SetMute(bool fMute)
{
    m_pImpl->Change([&](auto &device) { device.m_fMute = fMute; });
}

void CSoftDevice::SendGarbage()
{
    m_pImpl->SendGarbage();
}

void CSoftDevice::GarbleAnswers(unsigned c)
{
    m_pImpl->Change([&](auto &device) { device.m_cGarble = c; });
}
