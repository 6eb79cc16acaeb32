#include "tools/notifymon_monitor.h"

#include "tools/notifymon_output.h"
#include "tools/notifymon_record.h"
#include "tools/showable.h"
#include "tools/usage.h"

#include <cstdio>
#include <set>

namespace {

using std::chrono::milliseconds;

// How long a change of the settings file can go unseen.
constexpr milliseconds kSettingsLook{500};

// Before the bound: so long for what has to be said and done when somebody has not ended in time.
constexpr milliseconds kLastWords{200};
// So long entries are taken back from a device that answers; then its link is closed in any case.
constexpr milliseconds kForTakingBack{1000};

void Tell(std::string const &strText)
{
    std::fprintf(stderr, "notifymon: %s\n", strText.c_str());
}

} // namespace

CSessions::CSessions(CEnding &ending, CHooks &hooks) : m_ending(ending), m_hooks(hooks)
{
    m_ending.SetLastAct([this] { m_hooks.Kill(); });
    m_ending.SetListener([this](SessionTime tpLimit) {
        m_pEvents->Stop();
        AskForEnd(tpLimit);
        m_hooks.End(tpLimit - kLastWords);
    });
}

CSessions::~CSessions()
{
    m_ending.SetListener({});
    m_ending.SetLastAct({});
}

CSession &CSessions::Start(SessionOptions const &options)
{
    CPlatGuard const lock(m_mx);
    return m_sessions
        .emplace_back(std::piecewise_construct, std::forward_as_tuple(options.strDevice),
                      std::forward_as_tuple(m_supervisor, options, m_pEvents))
        .second;
}

void CSessions::AskForEnd(SessionTime tpLimit)
{
    CPlatGuard const lock(m_mx);
    for (auto &[strDevice, session] : m_sessions) {
        session.End(tpLimit - kEndLimit + kForTakingBack);
    }
}

void CSessions::End(int nExitCode)
{
    SessionTime const tpLimit = m_ending.Limit();
    AskForEnd(tpLimit);
    m_hooks.End(tpLimit - kLastWords);
    bool bAll = true;
    for (auto &[strDevice, session] : m_sessions) {
        if (!session.WaitForEnd(tpLimit - kLastWords)) {
            bAll = false;
            Tell(Showable(strDevice) + ": the device does not answer; ended without taking back "
                                       "what is on its panel");
        }
    }
    if (!bAll) {
        CEnding::Leave(nExitCode);
    }
}

namespace {

class CMonitor {
public:
    CMonitor(Options const &options, CDiagnostics &diagnostics, CEnding &ending)
        : m_options(options), m_diagnostics(diagnostics), m_ending(ending),
          m_hooks(options.strCommand), m_sessions(ending, m_hooks),
          m_tape(*ParseTapeMask(options.strMask))
    {
    }

    int Run()
    {
        std::string strError;
        if (!m_options.strRecord.empty() && !m_tape.Start(m_options.strRecord, &strError)) {
            Tell(strError);
            return eXC_FAILED;
        }
        for (SessionOptions const &device : m_options.devices) {
            CSession &session = m_sessions.Start(device);
            m_pFirst = m_pFirst == nullptr ? &session : m_pFirst;
        }
        int const nExitCode = Watch() ? eXC_DONE : eXC_FAILED;
        TellWhatIsLeft();
        m_sessions.End(nExitCode);
        return nExitCode;
    }

private:
    // False when something failed.
    bool Watch()
    {
        while (m_options.nCount == 0 || m_nSeen < m_options.nCount) {
            auto const event = Next();
            if (!event) {
                return HasEndedWell();
            }
            m_tape.Write(*event);
            if (!std::visit([&](auto const &what) { return Take(*event, what); }, event->what)) {
                return false;
            }
        }
        return true;
    }

    // The next event, with looks at the settings in between. Nothing at the end.
    std::optional<SessionEvent> Next()
    {
        for (;;) {
            bool const bLooks = m_diagnostics.IsOn();
            auto event = m_sessions.Events().Take(bLooks ? SessionClock::now() + kSettingsLook
                                                         : SessionTime::max());
            m_diagnostics.ReloadIfAsked();
            if (event || m_ending.IsAsked()) {
                return event;
            }
        }
    }

    bool HasEndedWell()
    {
        if (!m_ending.IsTimedOut()) {
            return true;
        }
        if (m_ready.size() < m_options.devices.size() && !m_options.bWait) {
            Tell("timed out before all devices were connected");
            return false;
        }
        if (m_options.nCount == 0) {
            return true;
        }
        Tell("timed out with " + std::to_string(m_nSeen) + " of " +
             std::to_string(m_options.nCount) + " notifications");
        return false;
    }

    bool Take(SessionEvent const &event, Notification const &notification)
    {
        ++m_nSeen;
        std::string strLine;
        if (m_options.bJson) {
            strLine = JsonLine(event);
        } else if (!m_options.strFormat.empty()) {
            strLine = FormatLine(m_options.strFormat, event, notification);
        } else {
            strLine = (m_options.devices.size() > 1 ? Showable(event.strDevice) + ": " : "") +
                      TextLine(notification);
        }
        if (!Print(strLine)) {
            return false;
        }
        m_diagnostics.Log(strLine);
        m_hooks.Run(event, notification);
        return true;
    }

    bool Take(SessionEvent const &event, LinkChange const &change)
    {
        if (m_options.bJson && !Print(JsonLine(event))) {
            return false;
        }
        std::string const strDevice = Showable(event.strDevice) + ": ";
        bool const bTries = m_options.bWait || m_ready.count(event.strDevice) != 0;
        if (change.eState == eSL_WAITING && !bTries) {
            Tell(strDevice + "cannot connect to " + Showable(change.strAddress) + ": " +
                 ResultText(change.dwResult));
            return false;
        }
        if (change.eState == eSL_INCOMPLETE) {
            // What the link does not have it will not have later.
            bool const bMayHold = bTries && change.dwResult != ERROR_NOT_SUPPORTED;
            Tell(strDevice + ChangeText(change) + (bMayHold ? "; trying again" : ""));
            return bMayHold;
        }
        Tell(strDevice + ChangeText(change));
        return change.eState != eSL_CONNECTED || BecomesReady(event.strDevice);
    }

    bool Take(SessionEvent const &event, DroppedEvents const &dropped)
    {
        Tell(DroppedText(dropped));
        return !m_options.bJson || Print(JsonLine(event));
    }

    bool BecomesReady(std::string const &strDevice)
    {
        m_ready.insert(strDevice);
        if (m_ready.size() < m_options.devices.size()) {
            return true;
        }
        Tell("ready");
        return m_options.strDiscover.empty() || Discover();
    }

    bool Discover()
    {
        std::string const strTarget = Showable(m_options.strDiscover);
        DWORD dwSequence = 0;
        DWORD const dwResult = m_pFirst->Discover(m_options.strDiscover, &dwSequence);
        if (dwResult != 0) {
            Tell("cannot discover through " + strTarget + ": " +
                 DiscoveryProblem(m_options.strDiscover, dwResult));
            return false;
        }
        Tell("discovery job number " + std::to_string(dwSequence) + " written to " + strTarget);
        return true;
    }

    // False when nobody takes our output any more.
    static bool Print(std::string const &strLine)
    {
        if (std::puts(strLine.c_str()) == EOF || std::fflush(stdout) == EOF) {
            Tell("cannot write to the standard output");
            return false;
        }
        return true;
    }

    void TellWhatIsLeft()
    {
        std::uint64_t const cLeft = m_sessions.Events().NotificationsLeft();
        if (m_ending.IsAsked() && cLeft > 0) {
            Tell(std::to_string(cLeft) + " notifications that waited are dropped");
        }
    }

    Options const &m_options;
    CDiagnostics &m_diagnostics;
    CEnding &m_ending;
    CHooks m_hooks;
    CSessions m_sessions;
    CHeardTape m_tape;
    CSession *m_pFirst = nullptr;  // the one that discovers
    std::set<std::string> m_ready; // the devices that have been connected
    unsigned m_nSeen = 0;
};

} // namespace

int RunMonitor(Options const &options, CDiagnostics &diagnostics, CEnding &ending)
{
    return CMonitor(options, diagnostics, ending).Run();
}
