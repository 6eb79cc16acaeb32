// What the loop does for a link: receives, pings, and looks for the device after a break. Nothing here waits.
#include "devlink/link_protocol.h"
#include "dolrtl/link_client.h"
#include "dolrtl/link_threads.h"
#include "platform/check.h"

#include <algorithm>
#include <cstring>
#include <new>

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kLookTime{3000};
constexpr milliseconds kGoodLinkTime{5000}; // a link that stood for so long was not just a lure
constexpr std::size_t kMaxWaitingTraps = 1024;
constexpr std::size_t kMaxTrapValue = 349; // bytes; no object's value is longer

// Of a step of the search: it is not over yet. No code of the library's has this number.
constexpr DWORD kGoesOn = 0xFFFFFFFF;

} // namespace

// ---- The stream

std::shared_ptr<CLinkStream> CLinkClient::Stream()
{
    CPlatGuard const lock(m_mx);
    return m_pStream;
}

bool CLinkClient::IsEnding()
{
    CPlatGuard const lock(m_mx);
    return m_fEnding;
}

// Not before Init has done with connecting: until then all that is the loop's is Init's. Not after the end.
void CLinkClient::WakeLoop()
{
    if (m_pThreads && m_fServed) {
        m_pThreads->Loop().Wake(m_place);
    }
}

// Lets the loop wait for the stream: to be written, or for what comes.
bool CLinkClient::Watch(bool fWrite)
{
    PLAT_CHECK(m_pThreads && m_place != 0 && !m_fWatched);
    CLinkLoop &loop = m_pThreads->Loop();
    m_fWatched = loop.Add(m_place, m_pStream->Socket(), ++m_dwStream);
    return m_fWatched &&
           (!fWrite || loop.Change(m_place, m_pStream->Socket(), m_dwStream, /*fRead=*/false,
                                   /*fWrite=*/true));
}

// Whoever closes the stream: it leaves the loop first.
void CLinkClient::DropStream()
{
    if (m_fWatched) {
        m_pThreads->Loop().Remove(m_pStream->Socket());
        m_fWatched = false;
    }
    if (m_pStream) {
        m_pStream->Close();
    }
}

// ---- The loop's calls

void CLinkClient::OnReady(DWORD dwStream, bool /*fRead*/, bool /*fWrite*/)
{
    CPlatGuard const lock(m_mx);
    m_fReady = m_fWatched && dwStream == m_dwStream;
}

LinkTime CLinkClient::OnTime(LinkTime now)
{
    if (m_eStep == eST_UP) {
        ServeLink(now);
    } else {
        Search(now);
    }
    m_fReady = false;
    switch (m_eStep) {
    case eST_UP:
        return std::min(m_pingDue, m_due);
    case eST_DONE:
        return LinkTime::max();
    default:
        return m_due;
    }
}

// ---- A link that stands

void CLinkClient::ServeLink(LinkTime now)
{
    DWORD dwReason = eDR_NO_MEMORY;
    try {
        dwReason = ReasonToLose(now);
    } catch (std::bad_alloc const &) {
        // what has come cannot be taken
    }
    if (dwReason != eDR_OK) {
        LoseLink(dwReason);
        BeginSearch(now, now - m_since >= kGoodLinkTime);
    }
}

// Does what is due. eDR_OK, or the reason why the link is at its end.
DWORD CLinkClient::ReasonToLose(LinkTime now)
{
    {
        CPlatGuard const lock(m_mx);
        if (m_fBroken) {
            return eDR_LINK_LOST;
        }
    }
    DWORD const dwReason = TakeFrames(now);
    if (dwReason != eDR_OK || now >= m_due) {
        return dwReason != eDR_OK ? dwReason : DWORD{eDR_LINK_LOST};
    }
    if (now >= m_pingDue) {
        m_pingDue = now + milliseconds(kLinkPingMs);
        return SendPing();
    }
    return eDR_OK;
}

DWORD CLinkClient::TakeFrames(LinkTime now)
{
    auto const pStream = Stream();
    bool const fOpen = !m_fReady || pStream->ReadSome();
    LinkFrame frame;
    LinkReceive eReceive = pStream->NextFrame(&frame);
    for (; eReceive == eRX_FRAME; eReceive = pStream->NextFrame(&frame)) {
        m_due = now + milliseconds(kLinkSilenceMs);
        Dispatch(frame);
    }
    if (eReceive == eRX_GARBAGE) {
        return eDR_BAD_ANSWER;
    }
    return fOpen ? eDR_OK : eDR_LINK_LOST;
}

// A ping that finds no turn is not needed: a frame of another thread is on its way. Nor does a line help that
// takes nothing now.
DWORD CLinkClient::SendPing()
{
    LinkBytes const frame = EncodeLinkFrame({eLK_PING, 0, {}});
    std::shared_ptr<CLinkStream> pStream;
    {
        CPlatGuard const lock(m_mx);
        if (m_fSending || m_fEnding) {
            return eDR_OK;
        }
        m_fSending = true;
        pStream = m_pStream;
    }
    int const n = pStream->SendSome(frame.data(), frame.size());
    CPlatGuard const lock(m_mx);
    m_fSending = false;
    m_cv.notify_all();
    return n == 0 || n == static_cast<int>(frame.size()) ? eDR_OK : eDR_LINK_LOST;
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
    CPlatGuard const lock(m_mx);
    auto const it = m_pending.find(frame.dwNumber);
    if (it == m_pending.end() || it->second->fDone) {
        return; // its request was given up
    }
    PendingRequest &request = *it->second;
    CLinkReader reader(frame.payload);
    DWORD const dwResult = reader.Word32();
    request.dwResult = reader.IsGood() ? LinkResultOfDevice(dwResult) : DWORD{eDR_BAD_ANSWER};
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
    CPlatGuard const lock(m_mx);
    if (m_traps.size() == kMaxWaitingTraps) {
        m_traps.pop_front();
    }
    m_traps.push_back(std::move(trap));
    m_fTrapEvent = true;
    RaiseEvent();
}

void CLinkClient::LoseLink(DWORD dwReason)
{
    CPlatGuard const lock(m_mx);
    m_eState = eLS_LOST;
    DropStream();
    for (auto const &[dwNumber, pRequest] : m_pending) {
        if (!pRequest->fDone) {
            pRequest->dwResult = dwReason;
        }
        pRequest->fDone = true;
    }
    m_cv.notify_all();
}

// ---- The search

void CLinkClient::BeginSearch(LinkTime now, bool fGoodLink)
{
    m_dwPause = FirstLinkPause(m_pauseKey, fGoodLink);
    m_due = now + milliseconds(m_dwPause);
    m_eStep = eST_PAUSE;
}

void CLinkClient::Search(LinkTime now)
{
    if (m_eStep == eST_DONE || IsEnding()) {
        m_eStep = eST_DONE;
        return;
    }
    DWORD dwResult = eDR_NO_MEMORY;
    try {
        dwResult = Look(now);
    } catch (std::bad_alloc const &) {
        // no memory now; perhaps by the next time
    }
    if (dwResult == eDR_OK) {
        DeviceFound();
    } else if (dwResult != kGoesOn || (m_eStep != eST_PAUSE && now >= m_due)) {
        {
            CPlatGuard const lock(m_mx);
            DropStream();
        }
        m_dwPause = NextLinkPause(m_pauseKey, m_dwPause);
        m_due = now + milliseconds(m_dwPause);
        m_eStep = eST_PAUSE;
    }
}

// One step further, if it is time for it. eDR_OK when the device has answered, kGoesOn, or why it has not.
DWORD CLinkClient::Look(LinkTime now)
{
    switch (m_eStep) {
    case eST_PAUSE:
        return now >= m_due ? BeginLook(now) : kGoesOn;
    case eST_LOOKUP:
        return AskHost();
    case eST_CONNECT:
        return m_fReady ? SayHello() : kGoesOn;
    default:
        return m_fReady ? HearHello() : kGoesOn;
    }
}

DWORD CLinkClient::BeginLook(LinkTime now)
{
    m_due = now + kLookTime;
    if (!m_library.Start()) {
        return eDR_UNREACHABLE;
    }
    DWORD dwHost = 0;
    if (KnowsHost(&dwHost)) {
        return LookAtHost(dwHost);
    }
    m_eStep = eST_LOOKUP;
    {
        CPlatGuard const lock(m_mx);
        StartLookup();
    }
    return AskHost();
}

DWORD CLinkClient::AskHost()
{
    DWORD dwHost = 0;
    DWORD dwResult = eDR_OK;
    {
        CPlatGuard const lock(m_mx);
        dwResult = LookedUp(&dwHost);
    }
    if (dwResult == eDR_OK) {
        return LookAtHost(dwHost);
    }
    return dwResult == eDR_TIMEOUT ? kGoesOn : dwResult;
}

DWORD CLinkClient::LookAtHost(DWORD dwHost)
{
    auto pStream = std::make_shared<CLinkStream>();
    if (int const nError = pStream->BeginConnect(DeviceAt(dwHost))) {
        return LinkResultOfSocketError(nError);
    }
    m_eStep = eST_CONNECT;
    CPlatGuard const lock(m_mx);
    if (m_fEnding) {
        return eDR_LINK_LOST;
    }
    m_pStream = std::move(pStream);
    return Watch(/*fWrite=*/true) ? kGoesOn : DWORD{eDR_NO_MEMORY};
}

DWORD CLinkClient::SayHello()
{
    auto const pStream = Stream();
    int const nError = pStream->EndConnect();
    if (nError != 0) {
        return nError == WSAEWOULDBLOCK ? kGoesOn : LinkResultOfSocketError(nError);
    }
    LinkBytes const frame = HelloFrame(eLU_PROBE);
    if (pStream->SendSome(frame.data(), frame.size()) != static_cast<int>(frame.size())) {
        return eDR_LINK_LOST;
    }
    m_eStep = eST_HELLO;
    CPlatGuard const lock(m_mx);
    bool const fWatched =
        m_fWatched && m_pThreads->Loop().Change(m_place, m_pStream->Socket(), m_dwStream,
                                                /*fRead=*/true, /*fWrite=*/false);
    return fWatched ? kGoesOn : DWORD{eDR_LINK_LOST};
}

DWORD CLinkClient::HearHello()
{
    auto const pStream = Stream();
    if (!pStream->ReadSome()) {
        return eDR_LINK_LOST;
    }
    LinkFrame frame;
    switch (pStream->NextFrame(&frame)) {
    case eRX_FRAME:
        return ReadHelloAnswer(frame, eLU_PROBE);
    case eRX_TIMEOUT:
        return kGoesOn;
    default:
        return eDR_BAD_ANSWER;
    }
}

void CLinkClient::DeviceFound()
{
    m_eStep = eST_DONE;
    CPlatGuard const lock(m_mx);
    DropStream();
    m_fRestartEvent = true;
    RaiseEvent();
}
