#include "platform/console.h"

#include "platform/lock.h"
#include "platform/posix/error.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

// The signal handler writes one byte into a pipe and does nothing else; the console thread reads it and
// asks the program's handlers.

namespace {

struct ConsoleSignalType {
    int m_nSignal;
    DWORD m_dwEvent;
};

constexpr ConsoleSignalType g_aSignals[] = {
    {SIGINT, CTRL_C_EVENT}, {SIGHUP, CTRL_BREAK_EVENT}, {SIGTERM, CTRL_CLOSE_EVENT}};
constexpr std::size_t kcMaxHandlers = 16;
constexpr unsigned char kbyStop = 0; // no signal has this number

constinit std::atomic<int> g_fdNotify{-1}; // the pipe's end for the signal handler, open for ever

constinit CPlatMutex g_consoleLock; // no handler is called under it
constinit std::array<PHANDLER_ROUTINE, kcMaxHandlers>
    g_apfnHandlers PLAT_GUARDED_BY(g_consoleLock){};
constinit std::size_t g_cHandlers PLAT_GUARDED_BY(g_consoleLock) = 0;
constinit bool g_fIgnoreInterrupt PLAT_GUARDED_BY(g_consoleLock) = false;
constinit int g_fdRead = -1; // set under the lock, before the thread that reads begins
constinit pthread_t g_console PLAT_GUARDED_BY(g_consoleLock){};
// The console thread itself removed the last handler: nobody joins it, so it ends when it can.
constinit thread_local bool t_fRemovedSelf = false;
struct sigaction g_aFormer[std::size(g_aSignals)] PLAT_GUARDED_BY(g_consoleLock);

void OnSignal(int nSignal)
{
    int const nErrno = errno;
    auto const by = static_cast<unsigned char>(nSignal);
    // A full pipe holds thousands of signals not yet handled; one more or less does not matter.
    static_cast<void>(!write(g_fdNotify.load(std::memory_order_relaxed), &by, 1));
    errno = nErrno;
}

bool OfferToHandlers(DWORD dwEvent)
{
    std::array<PHANDLER_ROUTINE, kcMaxHandlers> apfn;
    std::size_t cHandlers;
    {
        CPlatGuard guard(g_consoleLock);
        apfn = g_apfnHandlers;
        cHandlers = g_cHandlers;
    }
    while (cHandlers > 0) {
        if (apfn[--cHandlers](dwEvent)) {
            return true;
        }
    }
    return false;
}

void HandleSignal(int nSignal)
{
    for (auto const &signal : g_aSignals) {
        if (signal.m_nSignal == nSignal && !OfferToHandlers(signal.m_dwEvent)) {
            std::signal(nSignal, SIG_DFL);
            kill(getpid(), nSignal);
        }
    }
}

void *ConsoleMain(void *)
{
    for (;;) {
        unsigned char by;
        ssize_t const cb = read(g_fdRead, &by, 1);
        if (cb < 0 && errno == EINTR) {
            continue;
        }
        if (cb != 1 || by == kbyStop) {
            return nullptr;
        }
        HandleSignal(by);
        if (t_fRemovedSelf) {
            return nullptr;
        }
    }
}

DWORD OpenPipe()
{
    int aFd[2];
    if (g_fdRead >= 0) {
        return NO_ERROR;
    }
    if (pipe2(aFd, O_CLOEXEC) != 0) {
        return PlatErrorFromErrno(errno);
    }
    fcntl(aFd[1], F_SETFL, O_NONBLOCK);
    g_fdRead = aFd[0];
    g_fdNotify.store(aFd[1]);
    return NO_ERROR;
}

void IgnoreBrokenPipes()
{
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    if (action.sa_handler == SIG_DFL) {
        std::signal(SIGPIPE, SIG_IGN);
    }
}

void CatchSignals() PLAT_REQUIRES(g_consoleLock)
{
    struct sigaction action {};
    action.sa_handler = &OnSignal;
    action.sa_flags = SA_RESTART;
    for (std::size_t n = 0; n < std::size(g_aSignals); ++n) {
        sigaction(g_aSignals[n].m_nSignal, nullptr, &g_aFormer[n]);
        // Started by nohup: stays deaf to the terminal's end. The other two are caught even so, since
        // a shell has its background jobs ignore SIGINT and a script may well send it.
        bool const fKeep = g_aSignals[n].m_nSignal == SIGHUP && g_aFormer[n].sa_handler == SIG_IGN;
        if (!fKeep) {
            sigaction(g_aSignals[n].m_nSignal, &action, nullptr);
        }
    }
    if (g_fIgnoreInterrupt) {
        std::signal(SIGINT, SIG_IGN);
    }
}

DWORD Begin() PLAT_REQUIRES(g_consoleLock)
{
    if (DWORD const dwError = OpenPipe()) {
        return dwError;
    }
    if (int const rc = pthread_create(&g_console, nullptr, &ConsoleMain, nullptr)) {
        return PlatErrorFromErrno(rc);
    }
    IgnoreBrokenPipes();
    CatchSignals();
    return NO_ERROR;
}

// The last handler is gone. True with the thread to join, which is not to be done under the lock.
bool Finish(pthread_t &thread) PLAT_REQUIRES(g_consoleLock)
{
    for (std::size_t n = 0; n < std::size(g_aSignals); ++n) {
        sigaction(g_aSignals[n].m_nSignal, &g_aFormer[n], nullptr);
    }
    if (g_fIgnoreInterrupt) {
        std::signal(SIGINT, SIG_IGN);
    }
    thread = g_console;
    if (pthread_equal(thread, pthread_self())) {
        pthread_detach(thread);
        t_fRemovedSelf = true;
        return false;
    }
    static_cast<void>(!write(g_fdNotify.load(), &kbyStop, 1));
    return true;
}

DWORD IgnoreInterrupt(bool fIgnore)
{
    CPlatGuard guard(g_consoleLock);
    g_fIgnoreInterrupt = fIgnore;
    if (fIgnore || g_cHandlers == 0) {
        std::signal(SIGINT, fIgnore ? SIG_IGN : SIG_DFL);
    } else {
        std::signal(SIGINT, &OnSignal);
    }
    return NO_ERROR;
}

DWORD AddHandler(PHANDLER_ROUTINE pfnHandler)
{
    CPlatGuard guard(g_consoleLock);
    if (g_cHandlers == kcMaxHandlers) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    DWORD const dwError = g_cHandlers == 0 ? Begin() : NO_ERROR;
    if (dwError == NO_ERROR) {
        g_apfnHandlers[g_cHandlers++] = pfnHandler;
    }
    return dwError;
}

DWORD RemoveHandler(PHANDLER_ROUTINE pfnHandler)
{
    pthread_t thread{};
    bool fJoin = false;
    {
        CPlatGuard guard(g_consoleLock);
        auto const itEnd = g_apfnHandlers.begin() + static_cast<std::ptrdiff_t>(g_cHandlers);
        auto const it = std::find(g_apfnHandlers.begin(), itEnd, pfnHandler);
        if (it == itEnd) {
            return ERROR_INVALID_PARAMETER;
        }
        std::copy(it + 1, itEnd, it);
        fJoin = --g_cHandlers == 0 && Finish(thread);
    }
    if (fJoin) {
        pthread_join(thread, nullptr);
    }
    return NO_ERROR;
}

} // namespace

BOOL WINAPI SetConsoleCtrlHandler(PHANDLER_ROUTINE pfnHandler, BOOL fAdd)
{
    DWORD const dwError = !pfnHandler ? IgnoreInterrupt(fAdd != FALSE)
                          : fAdd      ? AddHandler(pfnHandler)
                                      : RemoveHandler(pfnHandler);
    if (dwError != NO_ERROR) {
        SetLastError(dwError);
    }
    return dwError == NO_ERROR;
}
