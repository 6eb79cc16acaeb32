// notifymon: a client of the notification agent. Prints one line per notification.
//
// The standard output carries notifications and, as JSON, the states of the link, so that a script can
// read them; everything else is on the standard error.

#include "platform/console.h"
#include "platform/lock.h"
#include "tools/notifymon_doctor.h"
#include "tools/notifymon_monitor.h"
#include "tools/usage.h"

#include <cstdio>

namespace {

// For the console's handler, which gets no argument. The mutex is held while the handler is inside the
// object, which must not go meanwhile.
CPlatMutex g_mtxEnding;
CEnding *g_pEnding PLAT_GUARDED_BY(g_mtxEnding) = nullptr;

void SetEnding(CEnding *pEnding)
{
    CPlatGuard const lock(g_mtxEnding);
    g_pEnding = pEnding;
}

// Ctrl-Break reads the settings again where there are any.
BOOL WINAPI OnConsoleEvent(DWORD dwEvent)
{
    if (dwEvent == CTRL_BREAK_EVENT && CDiagnostics::AskForReload()) {
        return TRUE;
    }
    CPlatGuard const lock(g_mtxEnding);
    if (g_pEnding != nullptr) {
        g_pEnding->Ask(/*bAtOnce=*/dwEvent == CTRL_C_EVENT);
    }
    return TRUE;
}

int Run(Options const &options)
{
    CEnding ending(options.rTimeout);
    SetEnding(&ending);
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    int nExitCode = eXC_FAILED;
    if (options.bDoctor) {
        nExitCode = RunDoctor(options, ending) ? eXC_DONE : eXC_FAILED;
    } else {
        CDiagnostics diagnostics; // ends after the agents, whose leaks its final report names
        if (diagnostics.Start(options.strRegistry, options.strDiagnostics)) {
            nExitCode = RunMonitor(options, diagnostics, ending);
        }
    }
    SetEnding(nullptr);
    return nExitCode;
}

} // namespace

int main(int argc, char **argv)
{
    // Not every runtime leaves it so when it is a pipe.
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    Options options;
    if (auto const nExitCode = ReadOptions(argc, argv, options)) {
        return *nExitCode;
    }
    try {
        return Run(options);
    } catch (std::exception const &error) {
        std::fprintf(stderr, "notifymon: %s\n", error.what());
        return eXC_FAILED;
    }
}
