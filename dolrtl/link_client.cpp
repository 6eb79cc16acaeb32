#include "dolrtl/link_client.h"

#include "devlink/link_protocol.h"
#include "platform/thread.h"

#include <algorithm>
#include <cstring>
#include <system_error>

using std::chrono::milliseconds;

namespace {

// Together with the time that a last send may overrun they stay below the 5 s that we promise.
constexpr milliseconds kInitTime{4000};
constexpr milliseconds kRequestTime{3500};
constexpr milliseconds kProbeTime{3000};
constexpr milliseconds kPingSendTime{1000};
constexpr milliseconds kGoodbyeTime{500};
constexpr milliseconds kGoodLinkTime{5000}; // a link that stood for so long was not just a lure
constexpr std::size_t kMaxWaitingTraps = 1024;
constexpr std::size_t kMaxTrapValue = 349; // bytes; no object's value is longer
constexpr std::size_t kMaxHostName = 255;
constexpr DWORD kLoopback = 0x7F000001;
constexpr DWORD kNoPortGiven = 255;

DWORD FromSocketError(int nError)
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

// A device's results come from outside: a number that this library uses for something of its own,
// above all the 2 that ends a drain of traps, must not reach the caller.
DWORD FromDeviceResult(DWORD dwResult)
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

static_assert(DWORD{eLR_WRONG_LENGTH} == eDR_WRONG_LENGTH && DWORD{eLR_BUSY} == eDR_BUSY &&
              DWORD{eLR_NO_SUCH_OBJECT} == eDR_NO_SUCH_OBJECT &&
              DWORD{eLR_FULL} == eDR_DEVICE_FULL &&
              DWORD{eLR_VERSION_MISMATCH} == eDR_VERSION_MISMATCH &&
              DWORD{eLR_WRONG_TYPE} == eDR_WRONG_TYPE && DWORD{eLR_REFUSED} == eDR_REFUSED &&
              DWORD{eLR_FAILED} == eDR_DEVICE_FAILED && kLinkDefaultPort == kDolRtlDefaultPort);

} // namespace

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
        Lock lock(m_mx);
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

    dwResult = Connect(m_use, LinkClock::now() + kInitTime);
    {
        Lock lock(m_mx);
        m_eState = dwResult == eDR_OK ? eLS_UP : eLS_LOST;
    }
    return StartThreads() ? dwResult : DWORD{eDR_NO_MEMORY};
}

bool CLinkClient::StartThreads()
{
    try {
        m_thCallback = std::thread([pSelf = shared_from_this()] { pSelf->RunCallbacks(); });
        m_thLink = std::thread([this] { RunLink(); });
        Lock lock(m_mx);
        m_fMayCall = true;
        m_cv.notify_all();
        return true;
    } catch (std::system_error const &) {
        LoseLink(eDR_LINK_LOST);
        return false;
    }
}

// Makes pStream the one that End and LoseLink close. False when End has come first.
bool CLinkClient::UseStream(std::shared_ptr<CLinkStream> pStream)
{
    Lock lock(m_mx);
    m_pStream = std::move(pStream);
    return !m_fEnding;
}

DWORD CLinkClient::Connect(BYTE use, LinkTime deadline)
{
    if (!m_library.Start()) {
        return eDR_UNREACHABLE;
    }
    DWORD dwHost = kLoopback;
    DWORD dwResult = m_strHost.empty() ? DWORD{eDR_OK} : FindHost(deadline, &dwHost);
    if (dwResult != eDR_OK) {
        return dwResult;
    }

    auto const pStream = std::make_shared<CLinkStream>();
    if (!UseStream(pStream)) {
        return eDR_LINK_LOST;
    }
    bool const fDefault = m_dwPort == 0 || m_dwPort == kNoPortGiven;
    WORD const wPort = fDefault ? kLinkDefaultPort : static_cast<WORD>(m_dwPort);
    int const nError = pStream->Connect({dwHost, wPort}, deadline);
    dwResult = nError ? FromSocketError(nError) : Hello(*pStream, use, deadline);
    if (dwResult != eDR_OK || IsEnding()) {
        pStream->Close();
    }
    return dwResult;
}

DWORD CLinkClient::Hello(CLinkStream &stream, BYTE use, LinkTime deadline)
{
    // A probe must not take an address text away from the link that is to follow it.
    std::string const strText =
        use == eLU_LOCAL && m_strWanted.size() <= kLinkMaxAddressText ? m_strWanted : std::string();
    CLinkWriter writer;
    writer.Word32(kLinkMagic).Word16(kLinkVersion).Byte(use);
    writer.Bytes8(strText.data(), strText.size());
    if (!stream.Send(EncodeLinkFrame({eLK_HELLO, 0, writer.Take()}), deadline)) {
        return eDR_LINK_LOST;
    }

    LinkFrame frame;
    switch (stream.Receive(&frame, deadline)) {
    case eRX_FRAME:
        return ReadHelloAnswer(frame, use);
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
        return FromDeviceResult(dwResult);
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

DWORD CLinkClient::FindHost(LinkTime deadline, DWORD *pdwHost)
{
    if (ParseDottedAddress(m_strHost, pdwHost)) {
        return eDR_OK;
    }

    Lock lock(m_mx);
    if (!m_pLookup) {
        StartLookup(m_strHost);
    }
    auto const pLookup = m_pLookup;
    m_cv.wait_until(lock, deadline, [&] { return pLookup->fDone || m_fEnding; });
    if (!pLookup->fDone) {
        return eDR_TIMEOUT; // the next probe waits for the same lookup
    }
    m_pLookup.reset();
    *pdwHost = pLookup->dwHost;
    return pLookup->fFound ? eDR_OK : eDR_BAD_ADDRESS;
}

// The system's lookup takes as long as it likes and cannot be interrupted, so that it gets a thread
// that nobody waits for. It keeps what it needs alive, the module with its code included.
void CLinkClient::StartLookup(std::string const &strHost)
{
    auto pLookup = std::make_shared<NameLookup>();
    pLookup->strHost = strHost;
    pLookup->fDone =
        !PlatRunDetached([pSelf = shared_from_this(), pLookup] { LookUp(pSelf, pLookup); });
    m_pLookup = std::move(pLookup);
}

void CLinkClient::LookUp(std::shared_ptr<CLinkClient> pSelf, std::shared_ptr<NameLookup> pLookup)
{
    hostent const *pHost = ws::gethostbyname(pLookup->strHost.c_str());
    bool const fFound = pHost && pHost->h_addrtype == AF_INET && pHost->h_addr_list[0];
    Lock lock(pSelf->m_mx);
    if (fFound) {
        in_addr address;
        std::memcpy(&address, pHost->h_addr_list[0], sizeof address);
        pLookup->dwHost = static_cast<DWORD>(ws::ntohl(address.s_addr));
    }
    pLookup->fFound = fFound;
    pLookup->fDone = true;
    pSelf->m_cv.notify_all();
}

// ---- Requests

// Waits until no other thread sends. False when the link went or the time was up.
bool CLinkClient::WaitForTurn(Lock &lock, LinkTime deadline)
{
    m_cv.wait_until(lock, deadline, [&] { return !m_fSending || m_eState != eLS_UP; });
    return !m_fSending && m_eState == eLS_UP;
}

// Sends one frame, with the lock given up meanwhile. A frame sent in part leaves the stream closed,
// which the link thread notices.
bool CLinkClient::SendFrame(Lock &lock, LinkBytes const &frame, LinkTime deadline)
{
    if (!WaitForTurn(lock, deadline)) {
        return false;
    }
    auto const pStream = m_pStream;
    m_fSending = true;
    lock.unlock();
    bool const fSent = pStream->Send(frame, deadline);
    lock.lock();
    m_fSending = false;
    m_cv.notify_all();
    return fSent;
}

DWORD CLinkClient::Request(BYTE kind, LinkBytes payload, LinkBytes *pAnswer)
{
    LinkTime const deadline = LinkClock::now() + kRequestTime;
    Lock lock(m_mx);
    if (m_eState != eLS_UP) {
        return m_fStarted ? eDR_LINK_LOST : eDR_NOT_STARTED;
    }

    PendingRequest request;
    DWORD const dwNumber = ++m_dwLastNumber ? m_dwLastNumber : ++m_dwLastNumber; // 0 is for none
    LinkBytes const frame = EncodeLinkFrame({kind, dwNumber, std::move(payload)});
    m_pending[dwNumber] = &request;
    if (SendFrame(lock, frame, deadline)) {
        m_cv.wait_until(lock, deadline, [&] { return request.fDone || m_eState != eLS_UP; });
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
    Lock lock(m_mx);
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

// ---- The link thread

bool CLinkClient::IsEnding()
{
    Lock lock(m_mx);
    return m_fEnding;
}

void CLinkClient::RunLink()
{
    LinkTime const start = LinkClock::now();
    ReceiveUntilLost();
    ProbeUntilReached(LinkClock::now() - start >= kGoodLinkTime);
}

void CLinkClient::ReceiveUntilLost()
{
    {
        Lock lock(m_mx);
        if (m_eState != eLS_UP) {
            return;
        }
    }
    LinkTime pingDue = LinkClock::now() + milliseconds(kLinkPingMs);
    LinkTime giveUp = LinkClock::now() + milliseconds(kLinkSilenceMs);
    DWORD dwReason = eDR_OK;
    try {
        while (dwReason == eDR_OK) {
            dwReason = ReceiveOne(&pingDue, &giveUp);
        }
    } catch (std::bad_alloc const &) {
        dwReason = eDR_NO_MEMORY;
    }
    LoseLink(dwReason);
}

// Receives a frame or does what is due. eDR_OK, or the reason why the link is at its end.
DWORD CLinkClient::ReceiveOne(LinkTime *pPingDue, LinkTime *pGiveUp)
{
    LinkFrame frame;
    switch (m_pStream->Receive(&frame, std::min(*pPingDue, *pGiveUp))) {
    case eRX_FRAME:
        *pGiveUp = LinkClock::now() + milliseconds(kLinkSilenceMs);
        Dispatch(frame);
        break;
    case eRX_TIMEOUT:
        break;
    case eRX_GARBAGE:
        return eDR_BAD_ANSWER;
    default:
        return eDR_LINK_LOST;
    }
    LinkTime const now = LinkClock::now();
    if (now >= *pGiveUp) {
        return eDR_LINK_LOST;
    }
    if (now >= *pPingDue) {
        *pPingDue = now + milliseconds(kLinkPingMs);
        Lock lock(m_mx);
        // A ping that finds no turn is not needed: a frame of another thread is on its way.
        static_cast<void>(SendFrame(lock, EncodeLinkFrame({eLK_PING, 0, {}}), now + kPingSendTime));
    }
    return eDR_OK;
}

void CLinkClient::Dispatch(LinkFrame const &frame)
{
    if (frame.kind & kLinkAnswerBit) {
        TakeAnswer(frame);
    } else if (frame.kind == eLK_TRAP_VALUE) {
        TakeTrap(frame);
    }
    // Other kinds may come from a device that knows more than we do.
}

void CLinkClient::TakeAnswer(LinkFrame const &frame)
{
    Lock lock(m_mx);
    auto const it = m_pending.find(frame.dwNumber);
    if (it == m_pending.end() || it->second->fDone) {
        return; // its request was given up
    }
    PendingRequest &request = *it->second;
    CLinkReader reader(frame.payload);
    DWORD const dwResult = reader.Word32();
    request.dwResult = reader.IsGood() ? FromDeviceResult(dwResult) : DWORD{eDR_BAD_ANSWER};
    if (reader.IsGood()) {
        request.answer.assign(frame.payload.begin() + 4, frame.payload.end());
    }
    request.fDone = true;
    m_cv.notify_all();
}

void CLinkClient::TakeTrap(LinkFrame const &frame)
{
    CLinkReader reader(frame.payload);
    WaitingTrap trap;
    trap.wTrapId = reader.Word16();
    trap.dataType = reader.Byte();
    LinkBytes const value = reader.Bytes32();
    if (!reader.IsComplete()) {
        return;
    }
    // A copy: what is cut off is not to be held for as long as the trap waits.
    trap.value = LinkBytes(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                              value.size(), kMaxTrapValue)));
    bool const fWord = trap.dataType == eLD_WORD || trap.dataType == eLD_BITS;
    if (fWord && trap.value.size() >= 4) {
        CLinkReader word(trap.value);
        DWORD const dwValue = word.Word32();
        std::memcpy(trap.value.data(), &dwValue, sizeof dwValue);
    }
    Lock lock(m_mx);
    if (m_traps.size() == kMaxWaitingTraps) {
        m_traps.pop_front();
    }
    m_traps.push_back(std::move(trap));
    m_fTrapEvent = true;
    m_cv.notify_all();
}

void CLinkClient::LoseLink(DWORD dwReason)
{
    Lock lock(m_mx);
    m_eState = eLS_LOST;
    if (m_pStream) {
        m_pStream->Close();
    }
    for (auto const &[dwNumber, pRequest] : m_pending) {
        if (!pRequest->fDone) {
            pRequest->dwResult = dwReason;
        }
        pRequest->fDone = true;
    }
    m_cv.notify_all();
}

// False when the object ends meanwhile.
bool CLinkClient::SleepUnlessEnding(DWORD dwMilliseconds)
{
    Lock lock(m_mx);
    return !m_cv.wait_for(lock, milliseconds(dwMilliseconds), [&] { return m_fEnding; });
}

void CLinkClient::ProbeUntilReached(bool fGoodLink)
{
    for (DWORD dwWait = FirstLinkPause(m_pauseKey, fGoodLink); SleepUnlessEnding(dwWait);
         dwWait = NextLinkPause(m_pauseKey, dwWait)) {
        DWORD dwResult = eDR_NO_MEMORY;
        try {
            dwResult = Connect(eLU_PROBE, LinkClock::now() + kProbeTime);
        } catch (std::bad_alloc const &) {
            // no memory now; perhaps by the next time
        }
        if (dwResult == eDR_OK) {
            break;
        }
    }
    Lock lock(m_mx);
    if (m_fEnding) {
        return;
    }
    m_pStream->Close();
    m_fRestartEvent = true;
    m_cv.notify_all();
}

// ---- The callback thread

void CLinkClient::RunCallbacks()
{
    Lock lock(m_mx);
    for (;;) {
        m_cv.wait(lock,
                  [&] { return m_fEnding || (m_fMayCall && (m_fTrapEvent || m_fRestartEvent)); });
        if (m_fEnding) {
            return;
        }
        // Traps first: what came before the break is read before the object is replaced.
        bool const fTraps = m_fTrapEvent;
        (fTraps ? m_fTrapEvent : m_fRestartEvent) = false;
        if (!m_pfnCallback || (fTraps && m_traps.empty())) { // another thread has read them
            continue;
        }
        lock.unlock();
        m_pfnCallback(fTraps ? eDE_TRAP_PENDING : eDE_RESTART_LINK, m_dwContext);
        lock.lock();
    }
}

// So that the device has forgotten this link, and its address text is free, before another one is made:
// the device hangs up in return.
void CLinkClient::SayGoodbye(Lock &lock)
{
    if (m_eState != eLS_UP || !m_thLink.joinable()) {
        return;
    }
    m_pStream->FinishSending();
    m_cv.wait_for(lock, kGoodbyeTime, [&] { return m_eState != eLS_UP; });
}

void CLinkClient::End()
{
    {
        Lock lock(m_mx);
        m_fEnding = true;
        m_cv.notify_all();
        SayGoodbye(lock);
        if (m_pStream) {
            m_pStream->Close();
        }
    }
    if (m_thLink.joinable()) {
        m_thLink.join();
    }
    if (m_thCallback.get_id() == std::this_thread::get_id()) {
        m_thCallback.detach(); // it holds a share of this object and returns when its callback does
    } else if (m_thCallback.joinable()) {
        m_thCallback.join();
    }
}
