#include "platform/posix/desktop/terminal.h"

#include "platform/lineedit.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cwchar>
#include <iterator>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr unsigned kFallbackColumns = 80;

constinit std::atomic<int> g_fdWake{-1};

void OnSignal(int nSignal)
{
    int const nErrno = errno;
    auto const by = static_cast<unsigned char>(nSignal);
    static_cast<void>(!::write(g_fdWake.load(), &by, 1));
    errno = nErrno;
}

} // namespace

CTerminalSignals::CTerminalSignals(int fdWake)
{
    g_fdWake = fdWake;
    struct sigaction action {};
    action.sa_handler = &OnSignal;
    action.sa_flags = SA_RESTART;
    for (std::size_t n = 0; n < std::size(kSignals); ++n) {
        ::sigaction(kSignals[n], &action, &m_aFormer[n]);
    }
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTTIN);
    sigaddset(&blocked, SIGTTOU);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &m_formerMask);
}

CTerminalSignals::~CTerminalSignals()
{
    for (std::size_t n = 0; n < std::size(kSignals); ++n) {
        ::sigaction(kSignals[n], &m_aFormer[n], nullptr);
    }
    ::pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
}

unsigned TerminalColumns()
{
    winsize size{};
    bool const fKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return fKnown ? size.ws_col : kFallbackColumns;
}

unsigned TerminalWidthOf(char const *p, std::size_t cb)
{
    unsigned nWidth = 0;
    std::mbstate_t state{};
    while (cb > 0) {
        wchar_t ch;
        std::size_t const n = std::mbrtowc(&ch, p, cb, &state);
        if (n == 0 || n > cb) {
            return nWidth;
        }
        nWidth += static_cast<unsigned>(std::max(0, ::wcwidth(ch)));
        p += n;
        cb -= n;
    }
    return nWidth;
}

void TerminalWrite(std::string const &str)
{
    for (std::size_t nDone = 0; nDone < str.size();) {
        ssize_t const n = ::write(STDOUT_FILENO, str.data() + nDone, str.size() - nDone);
        if (n < 0 && errno != EINTR) {
            return; // the terminal is gone
        }
        nDone += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
}

bool PlatIsTerminal()
{
    return ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO);
}

bool PlatInForeground()
{
    return ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
}
