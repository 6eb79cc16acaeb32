#include "session/session_impl.h"

#include "devlink/link_stream.h"
#include "dolrtl/QOMADolC.h"
#include "platform/check.h"
#include "session/listener.h"
#include "session/option_text.h"

#include <array>
#include <cstdlib>
#include <map>
#include <random>

namespace {

using std::chrono::seconds;

constexpr seconds kHeartbeatPeriod{4};
constexpr unsigned kUnansweredLimit = 2;
constexpr char kHeartbeatText[] = "is the device there";
constexpr seconds kListenerPeriod{10};
constexpr DWORD kLoopback = 0x7F000001; // it listens at every address of this machine
constexpr seconds kEchoLimit{1};
constexpr unsigned kMissedLimit = 3;
constexpr seconds kTakeBackLimit{1};

struct PlainSubscription {
    DWORD dwFlag;
    char const *pszName;
};

constexpr std::array kPlainSubscriptions{
    PlainSubscription{eNF_ADF, "the document feeder"},
    PlainSubscription{eNF_SCANNER_BUTTON, "the scanner button"},
    PlainSubscription{eNF_FAX_UPLOAD, "fax upload"},
};

// The sessions by their numbers, for the agents' callbacks.
class CRegister {
public:
    DWORD NewId()
    {
        CPlatGuard const lock(m_mx);
        return ++m_dwLast;
    }
    void Add(DWORD dwId, std::weak_ptr<CSessionImpl> pSession)
    {
        CPlatGuard const lock(m_mx);
        m_sessions[dwId] = std::move(pSession);
    }
    void Remove(DWORD dwId)
    {
        CPlatGuard const lock(m_mx);
        m_sessions.erase(dwId);
    }
    std::shared_ptr<CSessionImpl> Find(DWORD dwId)
    {
        CPlatGuard const lock(m_mx);
        auto const it = m_sessions.find(dwId);
        return it != m_sessions.end() ? it->second.lock() : nullptr;
    }

private:
    CPlatMutex m_mx; // a leaf
    std::map<DWORD, std::weak_ptr<CSessionImpl>> m_sessions PLAT_GUARDED_BY(m_mx);
    DWORD m_dwLast PLAT_GUARDED_BY(m_mx) = 0;
};

CRegister &Register()
{
    // Never destroyed: a callback may come while the process's statics go.
    static CRegister *const s_pRegister = new CRegister;
    return *s_pRegister;
}

// Nobody can guess it, so that no stranger can have anything kept from the client.
std::string ProbeText()
{
    std::random_device random;
    return "listener-check " + std::to_string(random()) + "-" + std::to_string(random()) +
           ";KICKSEQ=0;";
}

std::string AddressText(SessionOptions const &options)
{
    DWORD const dwPort = options.dwPort == kNotifyNoPort ? kDolRtlDefaultPort : options.dwPort;
    return (options.bLocal ? "local link, port " : options.strAddress + ":") +
           std::to_string(dwPort);
}

// After a failed Init: whether the library tries again by itself. It does not where it is the argument that
// is wrong, and it is gone where the agent is not connected. A host name may be found later.
bool LibraryGoesOn(DWORD dwResult)
{
    return dwResult != eDR_INVALID_ARGUMENT && dwResult != eDR_BAD_ADDRESS &&
           dwResult != eDR_NO_MEMORY && dwResult != ERROR_INVALID_OWNER;
}

// Whether there is no use in asking the device anything more for now.
bool IsLinkFailure(DWORD dwResult)
{
    return dwResult == eDR_LINK_LOST || dwResult == eDR_TIMEOUT ||
           dwResult == ERROR_NOT_CONNECTED || dwResult == ERROR_INVALID_OWNER;
}

} // namespace

std::shared_ptr<CSessionImpl> CSessionImpl::Create(CSupervisor &supervisor, SessionOptions options,
                                                   std::shared_ptr<CEventQueue> pEvents)
{
    DWORD const dwId = Register().NewId();
    auto pSession =
        std::make_shared<CSessionImpl>(supervisor, std::move(options), std::move(pEvents), dwId);
    Register().Add(dwId, pSession);
    return pSession;
}

CSessionImpl::CSessionImpl(CSupervisor &supervisor, SessionOptions options,
                           std::shared_ptr<CEventQueue> pEvents, DWORD dwId)
    : m_supervisor(supervisor), m_options(std::move(options)), m_pEvents(std::move(pEvents)),
      m_dwId(dwId), m_strProbe(ProbeText()), m_strAddress(AddressText(m_options)),
      m_agent(&CSessionImpl::OnNotification, dwId)
{
    for (std::string const &strOption : m_options.rgstrOption) {
        m_entries.push_back({strOption});
    }
}

CSessionImpl::~CSessionImpl()
{
    Register().Remove(m_dwId);
}

void CSessionImpl::End(SessionTime tpTakeBack)
{
    {
        CPlatGuard const lock(m_mx);
        if (!m_bEndAsked) {
            m_tpTakeBack = tpTakeBack;
        }
        m_bEndAsked = true;
    }
    m_supervisor.Wake(this);
}

bool CSessionImpl::WaitForEnd(SessionTime tpEnd)
{
    CPlatWaitGuard lock(m_mx);
    return m_cv.wait_until(lock.Native(), tpEnd, [this]() PLAT_REQUIRES(m_mx) { return m_bEnded; });
}

// ---- The agent's callback thread

DWORD CSessionImpl::OnNotification(CallbackType eType, CallbackDataType *pData)
{
    if (auto const pSession = Register().Find(pData->dwClientData)) {
        try {
            pSession->Hear(eType, *pData);
        } catch (std::bad_alloc const &) {
            // This one notification is lost; an exception must not enter the agent's thread.
        }
    }
    return 0;
}

void CSessionImpl::Hear(CallbackType eType, CallbackDataType const &data)
{
    Notification notification{eType,
                              data.dwNotifyCode,
                              data.nValue,
                              data.dwValue,
                              static_cast<char const *>(data.strOption),
                              static_cast<char const *>(data.strSenderAddress),
                              static_cast<char const *>(data.strSenderName),
                              "",
                              {},
                              {},
                              ""};
    if (notification.strOption == m_strProbe) {
        ++m_cHeard;
        return;
    }
    ReadOption(notification, m_options.rgstrOption);
    if (eType == eCT_SELECT_NOTIFY && !m_options.bLocal) {
        JudgeSequence(notification);
    } else if (eType == eCT_LINK_RECOVERED) {
        m_silencing.Forget();
        Tell(eSL_LOST, eDR_LINK_LOST); // unless that was noticed before
        m_bReconnected = true;
        m_supervisor.Wake(this);
    }
    m_pEvents->Put(
        {m_options.strDevice, std::chrono::system_clock::now(), std::move(notification)});
}

void CSessionImpl::JudgeSequence(Notification const &notification)
{
    DWORD const dwSequence = notification.sequence.value_or(0);
    if (dwSequence == 0) {
        return;
    }
    if (!m_silencing.Hides(dwSequence, IsOurs(notification))) {
        return;
    }
    Silence("a datagram of " + notification.strSenderAddress +
            " with KICKSEQ=" + ClauseOf(notification.strOption, "KICKSEQ=").value_or("") +
            " would hide the device's own");
}

// By its text: the number of the entry may not be known yet when the device is quick.
bool CSessionImpl::IsOurs(Notification const &notification) const
{
    auto const &entries = m_options.rgstrOption;
    return notification.srvq ||
           (notification.strOption.find("NETADDR=") != std::string::npos &&
            std::find(entries.begin(), entries.end(), notification.strText) != entries.end());
}

void CSessionImpl::Silence(std::string strHow)
{
    if (m_silencing.Note(std::move(strHow))) {
        m_supervisor.Wake(this);
    }
}

// ---- The steps

std::optional<SessionTime> CSessionImpl::Step()
{
    if (IsEnding()) {
        Finish();
        return std::nullopt;
    }
    try {
        return DoWhatIsDue();
    } catch (std::bad_alloc const &) {
        return SessionClock::now() + CGrowingPause::kFirst; // perhaps there is memory then
    }
}

// One thing that can wait for the device, so that an end that is asked for meanwhile comes next. Returns
// when the next one is due.
SessionTime CSessionImpl::DoWhatIsDue()
{
    PLAT_CHECK(m_bConnected || !m_bReachable);
    SessionTime const now = SessionClock::now();
    if (m_bReconnected.exchange(false)) {
        Reconnected();
    }
    std::optional<SessionTime> const tpRestart = m_silencing.RestartAt();
    bool const bAsks = m_bConnected && m_bAsks;
    bool const bWatches = m_bReachable && !m_options.bLocal;
    if (m_bConnected && tpRestart && *tpRestart <= now) {
        RestartIfSilenced();
    } else if (!m_bConnected && m_tpConnect <= now) {
        Connect();
    } else if (m_bReachable && !IsSubscribed() && m_tpSubscribe <= now) {
        Subscribe();
    } else if (bAsks && m_tpHeartbeat <= now) {
        Heartbeat();
    } else if (bWatches && m_tpListener <= now) {
        CheckListener();
    } else {
        SessionTime tpNext = bAsks ? m_tpHeartbeat : SessionTime::max();
        tpNext = m_bConnected ? tpNext : m_tpConnect;
        tpNext = m_bConnected && tpRestart ? std::min(tpNext, *tpRestart) : tpNext;
        tpNext = m_bReachable && !IsSubscribed() ? std::min(tpNext, m_tpSubscribe) : tpNext;
        return bWatches ? std::min(tpNext, m_tpListener) : tpNext;
    }
    return SessionClock::now();
}

void CSessionImpl::Connect()
{
    PLAT_CHECK(!m_bReachable);
    m_bReconnected = false;
    m_silencing.Forget();
    char const *const pszAddress =
        m_options.strAddress.empty() ? nullptr : m_options.strAddress.c_str();
    DWORD const dwResult = m_agent.Init(pszAddress, m_options.dwPort, m_options.bLocal ? 0 : 1);
    if (dwResult == NO_ERROR) {
        m_connectPause.Reset();
        BeginLink();
    } else if (LibraryGoesOn(dwResult)) {
        m_bConnected = true;
        m_bBroken = true;
        m_tpHeartbeat = SessionClock::now() + kHeartbeatPeriod;
        Tell(eSL_LOST, dwResult);
    } else {
        Disconnect(dwResult);
    }
}

// The agent has done it by itself. What was on its way meanwhile may have reached the new link: it is taken
// back first, so that nothing stands there twice.
void CSessionImpl::Reconnected()
{
    Unsubscribe(SessionTime::max());
    BeginLink();
}

void CSessionImpl::BeginLink()
{
    SessionTime const now = SessionClock::now();
    for (PanelEntry &entry : m_entries) {
        entry.bPlaced = false;
        entry.bMayBeThere = false;
    }
    m_dwSubscribed = 0;
    m_bConnected = true;
    m_bReachable = true;
    m_bBroken = false;
    m_cUnanswered = 0;
    m_wListenerPort = 0;
    m_bHasEchoed = false;
    m_cEchoesMissed = 0;
    m_subscribePause.Reset();
    m_tpSubscribe = now;
    m_tpHeartbeat = now + kHeartbeatPeriod;
    m_tpListener = now;
}

void CSessionImpl::RestartIfSilenced()
{
    std::optional<std::string> const strHow = m_silencing.BeginRestart();
    if (!strHow) {
        return;
    }
    ++m_cSilenced;
    Tell(eSL_RESTARTING, 0, *strHow);
    Unsubscribe(SessionClock::now() + kTakeBackLimit);
    m_agent.Shutdown();
    m_bReachable = false;
    Connect();
}

void CSessionImpl::Subscribe()
{
    DWORD dwFirst = 0;
    std::string strFirst;
    auto const note = [&](std::string const &strWhat, DWORD dwResult) {
        if (dwResult != 0 && dwFirst == 0) {
            dwFirst = dwResult;
            strFirst = strWhat;
        }
        return dwResult == 0;
    };
    bool const bSelect = (m_options.dwFlags & eNF_SELECT) != 0;
    for (auto it = m_entries.begin(); bSelect && it != m_entries.end(); ++it) {
        if (IsEnding() || IsLinkFailure(dwFirst)) {
            break;
        }
        if (!it->bPlaced) {
            note("the panel entry \"" + it->strOption + "\"", Place(*it));
        }
    }
    for (PlainSubscription const &plain : kPlainSubscriptions) {
        DWORD const dwMissing = m_options.dwFlags & ~m_dwSubscribed & plain.dwFlag;
        if (dwMissing != 0 && !IsEnding() && !IsLinkFailure(dwFirst) &&
            note(plain.pszName, m_agent.Add(nullptr, plain.dwFlag, nullptr))) {
            m_dwSubscribed |= plain.dwFlag;
        }
    }
    if (IsLinkFailure(dwFirst)) {
        LoseLink(dwFirst);
    } else if (dwFirst != 0) {
        m_tpSubscribe = m_subscribePause.Next();
        Tell(eSL_INCOMPLETE, dwFirst, strFirst);
    } else if (IsSubscribed() && !m_bReconnected) {
        m_subscribePause.Reset();
        Tell(eSL_CONNECTED);
    }
}

DWORD CSessionImpl::Place(PanelEntry &entry)
{
    if (entry.bMayBeThere) {
        (void)m_agent.Delete(entry.dwInstance, eNF_SELECT, entry.strOption.c_str());
    }
    DWORD const dwResult = m_agent.Add(&entry.dwInstance, eNF_SELECT, entry.strOption.c_str());
    entry.bPlaced = dwResult == NO_ERROR;
    entry.bMayBeThere = entry.bPlaced || dwResult == eDR_TIMEOUT;
    return dwResult;
}

// As far as the device answers; it forgets the rest when the link ends.
void CSessionImpl::Unsubscribe(SessionTime tpEnd)
{
    bool bAnswers = true;
    auto const take = [&](DWORD dwInstance, DWORD dwFlag, char const *pszOption) {
        if (bAnswers && SessionClock::now() < tpEnd) {
            bAnswers = !IsLinkFailure(m_agent.Delete(dwInstance, dwFlag, pszOption));
        }
    };
    for (PanelEntry &entry : m_entries) {
        if (entry.bMayBeThere) {
            take(entry.dwInstance, eNF_SELECT, entry.strOption.c_str());
        }
    }
    for (PlainSubscription const &plain : kPlainSubscriptions) {
        if ((m_dwSubscribed & plain.dwFlag) != 0) {
            take(0, plain.dwFlag, nullptr);
        }
    }
}

bool CSessionImpl::IsSubscribed() const
{
    DWORD const dwPlain = m_options.dwFlags & (eNF_ADF | eNF_SCANNER_BUTTON | eNF_FAX_UPLOAD);
    bool const bPlaced = (m_options.dwFlags & eNF_SELECT) == 0 ||
                         std::all_of(m_entries.begin(), m_entries.end(),
                                     [](PanelEntry const &entry) { return entry.bPlaced; });
    return bPlaced && m_dwSubscribed == dwPlain;
}

void CSessionImpl::Heartbeat()
{
    DWORD const dwResult = m_agent.Delete(0, eNF_SELECT, kHeartbeatText);
    m_tpHeartbeat = SessionClock::now() + kHeartbeatPeriod;
    if (dwResult == eDR_TIMEOUT && ++m_cUnanswered < kUnansweredLimit) {
        m_tpHeartbeat = SessionClock::now();
    } else if (IsLinkFailure(dwResult)) {
        LoseLink(dwResult);
    } else if (dwResult == NO_ERROR && m_options.bLocal) {
        // A device that makes no difference. The agent now counts one entry less than there are.
        m_bAsks = false;
        Disconnect(NO_ERROR);
    } else if (
        !m_bBroken) { // or else the agent's word that it has restarted the link is on its way
        m_cUnanswered = 0;
        m_bReachable = true;
        if (IsSubscribed() && !m_bReconnected) {
            Tell(eSL_CONNECTED);
        }
    }
}

void CSessionImpl::CheckListener()
{
    m_tpListener = SessionClock::now() + kListenerPeriod;
    std::optional<WORD> const told = m_wListenerPort != 0 ? m_wListenerPort : ToldPort();
    if (!told) {
        return; // nowhere to write a job to
    }
    m_wListenerPort = *told;
    if (m_wListenerPort != 0 && EchoComes({kLoopback, m_wListenerPort}, m_strProbe, kEchoLimit)) {
        m_bHasEchoed = true;
        m_cEchoesMissed = 0;
        ++m_cEchoes;
        return;
    }
    ++m_cMissed;
    if (ToldPort() == WORD{0}) {
        Silence("its port is closed, as an empty datagram from anybody does it");
    } else if (m_bHasEchoed && ++m_cEchoesMissed == kMissedLimit) {
        Silence("no datagram to it is echoed any more");
    }
}

// The port in the address that the agent tells the device.
std::optional<WORD> CSessionImpl::ToldPort()
{
    std::string const strAddress = AdvertisedAddress(m_agent);
    std::size_t const nColon = strAddress.rfind(':');
    if (nColon == std::string::npos) {
        return std::nullopt;
    }
    return static_cast<WORD>(std::strtoul(strAddress.c_str() + nColon + 1, nullptr, 10));
}

void CSessionImpl::LoseLink(DWORD dwResult)
{
    if (dwResult == ERROR_NOT_CONNECTED || dwResult == ERROR_INVALID_OWNER) {
        Disconnect(
            dwResult); // the agent has tried to restart the link, and the device is another one
        return;
    }
    m_bReachable = false;
    m_bBroken = m_bBroken || dwResult == eDR_LINK_LOST;
    Tell(eSL_LOST, dwResult);
}

// The agent is to have no link; the next try is ours.
void CSessionImpl::Disconnect(DWORD dwResult)
{
    m_agent.Shutdown();
    m_bConnected = false;
    m_bReachable = false;
    m_tpConnect = m_connectPause.Next();
    if (dwResult != NO_ERROR) {
        Tell(eSL_LOST, dwResult);
    }
}

bool CSessionImpl::IsEnding()
{
    CPlatGuard const lock(m_mx);
    return m_bEndAsked;
}

void CSessionImpl::Finish()
{
    SessionTime tpTakeBack;
    {
        CPlatGuard const lock(m_mx);
        tpTakeBack = m_tpTakeBack;
    }
    if (m_bReachable) {
        Unsubscribe(tpTakeBack);
    }
    m_agent.Shutdown();
    {
        CPlatGuard const lock(m_mx);
        m_bEnded = true;
    }
    m_cv.notify_all();
}

// ---- What is told

void CSessionImpl::Tell(LinkStateType eState, DWORD dwResult, std::string strWhat)
{
    CPlatGuard const lock(m_mx);
    if (eState == eSL_LOST && !m_bEverUp) {
        eState = eSL_WAITING;
    } else if (eState == eSL_CONNECTED && m_bEverUp) {
        eState = eSL_BACK;
    }
    bool const bUp = eState == eSL_CONNECTED || eState == eSL_BACK;
    bool const bWasUp = m_told == eSL_CONNECTED || m_told == eSL_BACK;
    bool const bSame = bUp ? bWasUp : m_told == eState;
    bool const bOtherLine = dwResult == ERROR_INVALID_OWNER && m_dwTold != ERROR_INVALID_OWNER;
    if (bSame && eState != eSL_RESTARTING && !bOtherLine) {
        return;
    }
    m_told = eState;
    m_dwTold = dwResult;
    m_bEverUp = m_bEverUp || bUp;
    LinkChange change{eState, dwResult, std::move(strWhat), m_strAddress, 0, {}};
    if (bUp) {
        change.dwFlags = m_options.dwFlags;
        if ((m_options.dwFlags & eNF_SELECT) != 0) {
            change.rgstrOption = m_options.rgstrOption;
        }
    }
    m_pEvents->Put({m_options.strDevice, std::chrono::system_clock::now(), std::move(change)});
}
