/*
 * notifymon: a client of the notification agent. Prints one line per notification.
 *
 * stdout carries notifications alone, so that a script can read them; everything else is on stderr.
 */
#include "platform/console.h"
#include "platform/process.h"
#include "tools/notifymon_client.h"
#include "tools/notifymon_diagnostics.h"
#include "tools/notifymon_doctor.h"

#include <algorithm>
#include <atomic>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

/* How long a change of the settings file can go unseen. */
constexpr std::chrono::milliseconds kSettingsLook{500};

/* How long a command of --exec can keep the next notification waiting, in milliseconds. */
constexpr DWORD kCommandLimit = 10000;

enum ExitCode { eXC_DONE = 0, eXC_FAILED = 1, eXC_USAGE = 2 };

struct Options {
    MonitorOptions monitor;
    std::vector<std::string> rgstrOn;
    bool bJson = false;
    std::string strCommand;
    std::string strDiscover;
    std::string strRegistry;
    std::string strDiagnostics;
    unsigned nCount = 0; /* 0: no limit */
    double rTimeout = 0; /* seconds; 0: no limit */
    bool bDoctor = false;
};

std::map<std::string, DWORD> const kFlags{
    {"select", eNF_SELECT},
    {"adf", eNF_ADF},
    {"button", eNF_SCANNER_BUTTON},
    {"fax", eNF_FAX_UPLOAD},
};

/*
 * For the console's handler, which gets no argument. The mutex is held while the handler is inside the
 * client, which must not go meanwhile.
 */
std::mutex g_mtxStoppable;
CMonitorClient *g_pStoppable = nullptr;  /* under g_mtxStoppable */
std::atomic<bool> g_bReloads{false};     /* Ctrl-Break reads the settings again instead of ending */
std::atomic<bool> g_bReloadAsked{false}; /* and was pressed */

void SetStoppable(CMonitorClient *pClient)
{
    std::lock_guard const lock(g_mtxStoppable);
    g_pStoppable = pClient;
}

BOOL WINAPI OnConsoleEvent(DWORD dwEvent)
{
    if (dwEvent == CTRL_BREAK_EVENT && g_bReloads) {
        g_bReloadAsked = true;
        return TRUE;
    }
    std::lock_guard const lock(g_mtxStoppable);
    if (g_pStoppable != nullptr) {
        g_pStoppable->Stop();
    }
    return TRUE;
}

void DescribeOptions(CLI::App &app, Options &options)
{
    app.add_option("--address", options.monitor.strAddress,
                   "The device's address or host name (default: this machine)");
    app.add_option("--port", options.monitor.dwPort,
                   "The device's TCP port (default: the device link's own)")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--local", options.monitor.bLocal, "A device at this machine, over a local link");
    app.add_option("--option", options.monitor.rgstrOption,
                   "The text of a panel entry; may be given several times (default: \"notifymon\")")
        ->allow_extra_args(false)
        ->check(
            [](std::string const &strText) { return strText.empty() ? "the text is empty" : ""; });
    app.add_option(
           "--on", options.rgstrOn,
           "What to subscribe to, of select,adf,button,fax (default: all that the link has; "
           "over a network select,fax)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"select", "adf", "button", "fax"}));
    app.add_flag("--json", options.bJson, "One JSON object per notification");
    app.add_option(
        "--exec", options.strCommand,
        "A shell command to run for each notification, one after the other, each waited for "
        "10 seconds at most; it finds the fields in its environment: NOTIFY_KIND, NOTIFY_CODE, "
        "NOTIFY_NVALUE, "
        "NOTIFY_DWVALUE, NOTIFY_OPTION, NOTIFY_SENDER_ADDRESS, NOTIFY_SENDER_NAME");
    app.add_option("--discover", options.strDiscover,
                   "Write a discovery job to this file, pipe or device, which must exist");
    app.add_option("--registry", options.strRegistry,
                   "The settings file (default: the user's own, see docs/registry-file.md)");
    app.add_option(
        "--diagnostics", options.strDiagnostics,
        "Report what the agent does, under this name in the settings; they are read again "
        "when the file has changed and at Ctrl-Break (SIGHUP)");
    app.add_option("--count", options.nCount, "End after so many notifications")
        ->check(CLI::Range(1, 1000000000));
    app.add_option("--timeout", options.rTimeout,
                   "End after so many seconds; with --count that is a failure")
        ->check(CLI::Range(0.001, 1e9));
    CLI::App *const pDoctor = app.add_subcommand(
        "doctor", "Tell why notifications do not come, with the device and the settings given");
    pDoctor->fallthrough();
    pDoctor->callback([&options] { options.bDoctor = true; });
    for (char const *pszName : {"--option", "--on", "--json", "--exec", "--count", "--timeout"}) {
        pDoctor->excludes(app.get_option(pszName));
    }
    app.footer(
        "Prints one line per notification on stdout and everything else on stderr. Ends on "
        "Ctrl-C.\n"
        "Exit code: 0 done, 1 a result code other than 0 or --count not reached in time, 2 bad "
        "usage.\n"
        "doctor: 0 nothing failed, 1 something did, 2 bad usage.");
}

/* Fills in what depends on other options. */
void Complete(Options &options)
{
    DWORD dwFlags = 0;
    for (auto const &strOn : options.rgstrOn) {
        dwFlags |= kFlags.at(strOn);
    }
    if (dwFlags == 0) {
        dwFlags = eNF_SELECT | eNF_FAX_UPLOAD;
        if (options.monitor.bLocal) {
            dwFlags |= eNF_ADF | eNF_SCANNER_BUTTON;
        }
    }
    options.monitor.dwFlags = dwFlags;
    if (options.monitor.rgstrOption.empty()) {
        options.monitor.rgstrOption.emplace_back("notifymon");
    }
    if (options.monitor.strAddress.empty() && !options.monitor.bLocal) {
        options.monitor.strAddress = "127.0.0.1";
    }
}

/* CLI11's own words, on one line. */
int RefuseUsage(CLI::ParseError const &error)
{
    std::string strReason = error.what();
    std::replace(strReason.begin(), strReason.end(), '\n', ' ');
    std::fprintf(stderr, "notifymon: %s (try --help)\n", strReason.c_str());
    return eXC_USAGE;
}

void Tell(std::string const &strText)
{
    std::fprintf(stderr, "notifymon: %s\n", strText.c_str());
}

class CMonitor {
public:
    CMonitor(Options options, CDiagnostics &diagnostics)
        : m_options(std::move(options)), m_diagnostics(diagnostics), m_client(m_options.monitor)
    {
        g_bReloads = m_diagnostics.IsOn();
        SetStoppable(&m_client);
    }
    ~CMonitor() { SetStoppable(nullptr); }

    int Run()
    {
        m_tpEnd = m_options.rTimeout > 0
                      ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(m_options.rTimeout))
                      : Clock::time_point::max();
        if (!Begin()) {
            return eXC_FAILED;
        }
        bool const bDone = Watch();
        m_client.Unsubscribe();
        m_client.Disconnect();
        return bDone ? eXC_DONE : eXC_FAILED;
    }

private:
    bool Begin()
    {
        if (DWORD const dwResult = m_client.Connect(); dwResult != 0) {
            Tell("cannot connect: " + ResultText(dwResult));
            return false;
        }
        if (m_client.Subscribe() != 0) {
            return false;
        }
        Tell("ready");
        return m_options.strDiscover.empty() || Discover();
    }

    bool Discover()
    {
        DWORD dwSequence = 0;
        DWORD const dwResult = m_client.Discover(m_options.strDiscover, &dwSequence);
        if (dwResult != 0) {
            Tell("cannot discover through " + m_options.strDiscover + ": " + ResultText(dwResult));
            return false;
        }
        Tell("discovery job number " + std::to_string(dwSequence) + " written to " +
             m_options.strDiscover);
        return true;
    }

    /* False when --count was not reached in time. */
    bool Watch()
    {
        for (unsigned nSeen = 0; m_options.nCount == 0 || nSeen < m_options.nCount; ++nSeen) {
            auto const notification = Next();
            if (!notification) {
                return HasEndedWell(nSeen);
            }
            if (!Show(*notification)) {
                return false;
            }
            if (notification->eType == eCT_LINK_RECOVERED) {
                // A failure has been told; if the link broke again, the next recovery tries again.
                (void)m_client.Subscribe();
                Tell("subscribed again");
            }
        }
        return true;
    }

    /* The client's Next, with looks at the settings in between. */
    std::optional<Notification> Next()
    {
        for (;;) {
            auto const tpLook = m_diagnostics.IsOn() ? Clock::now() + kSettingsLook : m_tpEnd;
            auto notification = m_client.Next(std::min(tpLook, m_tpEnd));
            m_diagnostics.Reload(g_bReloadAsked.exchange(false));
            if (notification || m_client.IsStopped() || Clock::now() >= m_tpEnd) {
                return notification;
            }
        }
    }

    bool HasEndedWell(unsigned nSeen)
    {
        if (m_client.IsStopped() || m_options.nCount == 0) {
            return true;
        }
        Tell("timed out with " + std::to_string(nSeen) + " of " + std::to_string(m_options.nCount) +
             " notifications");
        return false;
    }

    /* False when nobody takes our output any more. */
    bool Show(Notification const &notification)
    {
        auto const strLine = m_options.bJson ? JsonLine(notification) : TextLine(notification);
        if (std::puts(strLine.c_str()) == EOF || std::fflush(stdout) == EOF) {
            Tell("cannot write to the standard output");
            return false;
        }
        m_diagnostics.Log(strLine);
        if (!m_options.strCommand.empty()) {
            RunCommand(notification);
        }
        return true;
    }

    void RunCommand(Notification const &notification)
    {
        auto const fields = EnvironmentOf(notification);
        std::vector<PlatEnvType> variables;
        for (auto const &[strName, strValue] : fields) {
            variables.push_back({strName.c_str(), strValue.c_str()});
        }
        DWORD dwExitCode = 0;
        if (!PlatRunCommand(m_options.strCommand.c_str(), variables.data(), variables.size(),
                            kCommandLimit, &dwExitCode)) {
            Tell("cannot run the command: error " + std::to_string(GetLastError()));
        } else if (dwExitCode == STILL_ACTIVE) {
            Tell("the command has not ended yet; going on without it");
        } else if (dwExitCode != 0) {
            Tell("the command ended with exit code " + std::to_string(dwExitCode));
        }
    }

    Options const m_options;
    CDiagnostics &m_diagnostics;
    CMonitorClient m_client;
    Clock::time_point m_tpEnd;
};

} // namespace

int main(int argc, char **argv)
{
    // Not every runtime leaves it so when it is a pipe.
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    CLI::App app("A client of the notification agent: prints what happens at a device.",
                 "notifymon");
    Options options;
    DescribeOptions(app, options);
    try {
        app.parse(argc, argv);
        Complete(options);
    } catch (CLI::Success const &success) {
        return app.exit(success); // --help
    } catch (CLI::ParseError const &error) {
        return RefuseUsage(error);
    }
    if (options.bDoctor) {
        bool const bWell = RunDoctor(
            {options.monitor, options.strRegistry, options.strDiagnostics, options.strDiscover});
        return bWell ? eXC_DONE : eXC_FAILED;
    }
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    CDiagnostics diagnostics; // ends after the agent, whose leaks its final report names
    if (!diagnostics.Start(options.strRegistry, options.strDiagnostics)) {
        return eXC_FAILED;
    }
    return CMonitor(std::move(options), diagnostics).Run();
}
