#include "dolrtl/link_client.h"

#include "devlink/link_protocol.h"
#include "dolrtl/link_threads.h"
#include "platform/check.h"
#include "platform/thread.h"

#include <cstring>
#include <new>
#include <utility>

using std::chrono::milliseconds;

namespace {

// Together with the time that a last send may overrun they stay below the 5 s that we promise.
constexpr milliseconds kInitTime{4000};
constexpr milliseconds kRequestTime{3500};
constexpr milliseconds kGoodbyeTime{500};
constexpr std::size_t kMaxHostName = 255;
constexpr DWORD kLoopback = 0x7F000001;
constexpr DWORD kNoPortGiven = 255;

static_assert(DWORD{eLR_WRONG_LENGTH} == eDR_WRONG_LENGTH && DWORD{eLR_BUSY} == eDR_BUSY &&
              DWORD{eLR_NO_SUCH_OBJECT} == eDR_NO_SUCH_OBJECT &&
              DWORD{eLR_FULL} == eDR_DEVICE_FULL &&
              DWORD{eLR_VERSION_MISMATCH} == eDR_VERSION_MISMATCH &&
              DWORD{eLR_WRONG_TYPE} == eDR_WRONG_TYPE && DWORD{eLR_REFUSED} == eDR_REFUSED &&
              DWORD{eLR_FAILED} == eDR_DEVICE_FAILED && kLinkDefaultPort == kDolRtlDefaultPort);

} // namespace

DWORD LinkResultOfSocketError(int nError)
{
    switch (nError) {
    case WSAECONNREFUSED:
        return eDR_CONNECT_REFUSED;
    case WSAETIMEDOUT:
        return eDR_TIMEOUT;
    case WSAEMFILE:
    case WSAENOBUFS:
        return eDR_NO_MEMORY;
    default:
        return eDR_UNREACHABLE;
    }
}

// Results come from outside: a number that this library uses for something of its own,
// above all the 2 that ends a drain of traps, must not reach the caller.
DWORD LinkResultOfDevice(DWORD dwResult)
{
    switch (dwResult) {
    case eLR_OK:
    case eLR_REFUSED:
    case eLR_WRONG_LENGTH:
    case eLR_BAD_REQUEST:
    case eLR_BUSY:
    case eLR_NO_SUCH_OBJECT:
    case eLR_VERSION_MISMATCH:
    case eLR_WRONG_TYPE:
    case eLR_FULL:
        return dwResult;
    default:
        return eDR_DEVICE_FAILED;
    }
}

CLinkClient::CLinkClient(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext)
    : m_pfnCallback(pfnCallback), m_dwContext(dwContext)
{
}

// ---- Connecting

DWORD CLinkClient::CheckTarget(char const *pszAddress, DWORD dwPort, DWORD dwTransport)
{
    if (dwTransport != eLT_LOCAL && dwTransport != eLT_NETWORK) {
        return eDR_INVALID_ARGUMENT;
    }
    std::size_t const cch = pszAddress ? std::strlen(pszAddress) : 0;
    if (dwPort > 65535 || cch > kMaxHostName || (dwTransport == eLT_NETWORK && cch == 0)) {
        return eDR_BAD_ADDRESS;
    }
    return eDR_OK;
}

DWORD CLinkClient::Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport)
{
    DWORD dwResult = CheckTarget(pszAddress, dwPort, dwTransport);
    if (dwResult != eDR_OK) {
        return dwResult;
    }
    {
        CPlatGuard const lock(m_mx);
        if (m_fStarted) {
            return eDR_ALREADY_STARTED;
        }
        m_fStarted = true;
    }
    m_strWanted = pszAddress ? pszAddress : "";
    m_strHost = dwTransport == eLT_NETWORK ? m_strWanted : "";
    m_dwPort = dwPort;
    m_use = dwTransport == eLT_NETWORK ? eLU_NETWORK : eLU_LOCAL;
    m_pszAddress = m_strWanted.c_str();
    m_pauseKey = {m_dwContext, m_strHost + ":" + std::to_string(dwPort)};

    if (!ShareThreads()) {
        return eDR_NO_MEMORY;
    }
    dwResult = Connect(LinkClock::now() + kInitTime);
    JoinLoop(dwResult == eDR_OK);
    return dwResult;
}

// A place with the loop, which does nothing for it yet. False when there is none to be had.
bool CLinkClient::ShareThreads()
{
    CLinkThreads *const pThreads = CLinkThreads::Share();
    if (!pThreads) {
        return false;
    }
    CPlatGuard const lock(m_mx);
    m_eState = eLS_LOST;
    m_pThreads = pThreads;
    m_place = pThreads->Loop().Attach(*this);
    return true;
}

// From here on the loop serves this, and calls back: whoever is called may call End.
void CLinkClient::JoinLoop(bool fConnected)
{
    LinkTime const now = LinkClock::now();
    CPlatGuard const lock(m_mx);
    if (fConnected) {
        m_eState = eLS_UP;
        m_eStep = eST_UP;
        m_since = now;
        m_pingDue = now + milliseconds(kLinkPingMs);
        m_due = now + milliseconds(kLinkSilenceMs);
        m_fBroken = !Watch(/*fWrite=*/false);
    } else {
        BeginSearch(now, /*fGoodLink=*/false);
    }
    m_fServed = true;
    WakeLoop(); // something may have come behind the device's answer
}

// Makes pStream the one that is closed in the end. False when the end has come already.
bool CLinkClient::UseStream(std::shared_ptr<CLinkStream> pStream)
{
    CPlatGuard const lock(m_mx);
    m_pStream = std::move(pStream);
    return !m_fEnding;
}

LinkAddress CLinkClient::DeviceAt(DWORD dwHost) const
{
    bool const fDefault = m_dwPort == 0 || m_dwPort == kNoPortGiven;
    return {dwHost, fDefault ? kLinkDefaultPort : static_cast<WORD>(m_dwPort)};
}

DWORD CLinkClient::Connect(LinkTime deadline)
{
    if (!m_library.Start()) {
        return eDR_UNREACHABLE;
    }
    DWORD dwHost = 0;
    DWORD dwResult = AwaitHost(deadline, &dwHost);
    if (dwResult != eDR_OK) {
        return dwResult;
    }

    auto const pStream = std::make_shared<CLinkStream>();
    if (!UseStream(pStream)) {
        return eDR_LINK_LOST;
    }
    int const nError = pStream->Connect(DeviceAt(dwHost), deadline);
    dwResult = nError ? LinkResultOfSocketError(nError) : Hello(*pStream, deadline);
    if (dwResult != eDR_OK || IsEnding()) {
        pStream->Close();
    }
    return dwResult;
}

LinkBytes CLinkClient::HelloFrame(BYTE use) const
{
    // A probe must not take an address text away from the link that is to follow it.
    std::string const strText =
        use == eLU_LOCAL && m_strWanted.size() <= kLinkMaxAddressText ? m_strWanted : std::string();
    CLinkWriter writer;
    writer.Word32(kLinkMagic).Word16(kLinkVersion).Byte(use);
    writer.Bytes8(strText.data(), strText.size());
    return EncodeLinkFrame({eLK_HELLO, 0, writer.Take()});
}

DWORD CLinkClient::Hello(CLinkStream &stream, LinkTime deadline)
{
    if (!stream.Send(HelloFrame(m_use), deadline)) {
        return eDR_LINK_LOST;
    }
    LinkFrame frame;
    switch (stream.Receive(&frame, deadline)) {
    case eRX_FRAME:
        return ReadHelloAnswer(frame, m_use);
    case eRX_TIMEOUT:
        return eDR_TIMEOUT;
    case eRX_CLOSED:
        return eDR_LINK_LOST;
    default:
        return eDR_BAD_ANSWER;
    }
}

DWORD CLinkClient::ReadHelloAnswer(LinkFrame const &frame, BYTE use)
{
    if (frame.kind != (eLK_HELLO | kLinkAnswerBit)) {
        return eDR_BAD_ANSWER;
    }
    CLinkReader reader(frame.payload);
    DWORD const dwResult = reader.Word32();
    if (reader.IsGood() && dwResult != eLR_OK) {
        return LinkResultOfDevice(dwResult);
    }
    WORD const wVersion = reader.Word16();
    std::string const strText = reader.Text8();
    if (!reader.IsComplete()) {
        return eDR_BAD_ANSWER;
    }
    if (wVersion != kLinkVersion) {
        return eDR_VERSION_MISMATCH;
    }
    if (use == eLU_LOCAL && !strText.empty()) {
        KeepAddress(strText);
    }
    return eDR_OK;
}

void CLinkClient::KeepAddress(std::string const &strText)
{
    if (strText.find('\0') != std::string::npos || !m_strGiven.empty()) {
        return;
    }
    m_strGiven = strText;
    m_pszAddress = m_strGiven.c_str();
}

// Which host it is without asking anybody. False for a name.
bool CLinkClient::KnowsHost(DWORD *pdwHost) const
{
    *pdwHost = kLoopback;
    return m_strHost.empty() || ParseDottedAddress(m_strHost, pdwHost);
}

DWORD CLinkClient::AwaitHost(LinkTime deadline, DWORD *pdwHost)
{
    if (KnowsHost(pdwHost)) {
        return eDR_OK;
    }
    CPlatWaitGuard lock(m_mx);
    StartLookup();
    m_cv.wait_until(lock.Native(), deadline,
                    [this]() PLAT_REQUIRES(m_mx) { return m_pLookup->fDone || m_fEnding; });
    return LookedUp(pdwHost);
}

// What a lookup has brought, eDR_TIMEOUT while it goes on: the next look waits for the same one.
DWORD CLinkClient::LookedUp(DWORD *pdwHost)
{
    if (!m_pLookup->fDone) {
        return eDR_TIMEOUT;
    }
    auto const pLookup = std::exchange(m_pLookup, nullptr);
    *pdwHost = pLookup->dwHost;
    return pLookup->fFound ? eDR_OK : eDR_BAD_ADDRESS;
}

// Unless one goes on. The system's lookup takes as long as it likes and cannot be interrupted, so that it
// gets a thread that nobody waits for. It keeps what it needs alive, the module with its code included.
void CLinkClient::StartLookup()
{
    if (m_pLookup) {
        return;
    }
    auto pLookup = std::make_shared<NameLookup>();
    pLookup->strHost = m_strHost;
    pLookup->fDone =
        !PlatRunDetached([pSelf = shared_from_this(), pLookup] { LookUp(pSelf, pLookup); });
    m_pLookup = std::move(pLookup);
}

void CLinkClient::LookUp(std::shared_ptr<CLinkClient> pSelf, std::shared_ptr<NameLookup> pLookup)
{
    hostent const *pHost = ws::gethostbyname(pLookup->strHost.c_str());
    bool const fFound = pHost && pHost->h_addrtype == AF_INET && pHost->h_addr_list[0];
    CPlatGuard const lock(pSelf->m_mx);
    if (fFound) {
        in_addr address;
        std::memcpy(&address, pHost->h_addr_list[0], sizeof address);
        pLookup->dwHost = static_cast<DWORD>(ws::ntohl(address.s_addr));
    }
    pLookup->fFound = fFound;
    pLookup->fDone = true;
    pSelf->m_cv.notify_all();
    pSelf->WakeLoop();
}

// ---- Requests

// Waits until no other thread sends. False when the link went or the time was up.
bool CLinkClient::WaitForTurn(CPlatWaitGuard &lock, LinkTime deadline)
{
    m_cv.wait_until(lock.Native(), deadline,
                    [this]() PLAT_REQUIRES(m_mx) { return !m_fSending || m_eState != eLS_UP; });
    return !m_fSending && !m_fBroken && m_eState == eLS_UP;
}

// Sends one frame, with the lock given up meanwhile. After a frame that was sent in part the link is of no
// use: the loop gives it up, since the stream has to leave its set before it is closed.
bool CLinkClient::SendFrame(CPlatWaitGuard &lock, LinkBytes const &frame, LinkTime deadline)
{
    if (!WaitForTurn(lock, deadline)) {
        return false;
    }
    auto const pStream = m_pStream;
    m_fSending = true;
    m_mx.unlock();
    bool const fSent = pStream->SendUnclosed(frame, deadline);
    m_mx.lock();
    m_fSending = false;
    if (!fSent) {
        m_fBroken = true;
        WakeLoop();
    }
    m_cv.notify_all();
    return fSent;
}

DWORD CLinkClient::Request(BYTE kind, LinkBytes payload, LinkBytes *pAnswer)
{
    LinkTime const deadline = LinkClock::now() + kRequestTime;
    CPlatWaitGuard lock(m_mx);
    if (m_eState != eLS_UP) {
        return m_fStarted ? eDR_LINK_LOST : eDR_NOT_STARTED;
    }

    PendingRequest request;
    DWORD const dwNumber = ++m_dwLastNumber ? m_dwLastNumber : ++m_dwLastNumber; // 0 is for none
    LinkBytes const frame = EncodeLinkFrame({kind, dwNumber, std::move(payload)});
    m_pending[dwNumber] = &request;
    if (SendFrame(lock, frame, deadline)) {
        m_cv.wait_until(lock.Native(), deadline,
                        [&]() PLAT_REQUIRES(m_mx) { return request.fDone || m_eState != eLS_UP; });
    }
    m_pending.erase(dwNumber);

    if (!request.fDone) {
        return m_eState == eLS_UP && LinkClock::now() >= deadline ? eDR_TIMEOUT : eDR_LINK_LOST;
    }
    if (request.dwResult == eDR_OK && pAnswer) {
        *pAnswer = std::move(request.answer);
    }
    return request.dwResult;
}

DWORD CLinkClient::ReadTrap(WaitingTrap *pTrap)
{
    CPlatGuard const lock(m_mx);
    if (!m_fStarted) {
        return eDR_NOT_STARTED;
    }
    if (m_traps.empty()) {
        return eDR_NO_MORE_TRAPS;
    }
    *pTrap = std::move(m_traps.front());
    m_traps.pop_front();
    return eDR_OK;
}

// ---- Callbacks and the end

void CLinkClient::RaiseEvent()
{
    if (m_pfnCallback && !m_fEnding && m_pThreads) {
        m_pThreads->Callbacks().Queue(*this);
    }
}

// Traps first: what came before the break is read before the object is replaced.
bool CLinkClient::TakeEvent(DWORD *pdwEvent)
{
    bool const fTraps = std::exchange(m_fTrapEvent, false) && !m_traps.empty();
    *pdwEvent = fTraps ? eDE_TRAP_PENDING : eDE_RESTART_LINK;
    return !m_fEnding && (fTraps || std::exchange(m_fRestartEvent, false));
}

bool CLinkClient::OnTurn() noexcept
{
    auto const pSelf = shared_from_this(); // the callback may delete the object
    DWORD dwEvent = 0;
    {
        CPlatGuard const lock(m_mx);
        if (!TakeEvent(&dwEvent)) {
            return false;
        }
    }
    m_pfnCallback(dwEvent, m_dwContext);
    CPlatGuard const lock(m_mx);
    return !m_fEnding && (m_fTrapEvent || m_fRestartEvent);
}

// So that the device has forgotten this link, and its address text is free, before another one is made:
// the device hangs up in return.
void CLinkClient::SayGoodbye(CPlatWaitGuard &lock)
{
    if (m_eState != eLS_UP) {
        return;
    }
    m_pStream->FinishSending();
    m_cv.wait_for(lock.Native(), kGoodbyeTime,
                  [this]() PLAT_REQUIRES(m_mx) { return m_eState != eLS_UP; });
}

void CLinkClient::End()
{
    CLinkThreads *pThreads = nullptr;
    CLinkLoop::Place place = 0;
    {
        CPlatWaitGuard lock(m_mx);
        PLAT_CHECK(!m_fEnding);
        m_fEnding = true;
        m_cv.notify_all();
        SayGoodbye(lock);
        DropStream();
        pThreads = std::exchange(m_pThreads, nullptr);
        place = m_place;
    }
    if (!pThreads) {
        return;
    }
    if (place != 0) {
        pThreads->Loop().Detach(place);
    }
    pThreads->Callbacks().Forget(*this);
    pThreads->GiveBack();
}
