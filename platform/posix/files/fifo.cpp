#include "platform/fifo.h"

#include "platform/input.h"
#include "platform/posix/error.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// 1 when fd can be read (also at its end), 0 when the time was up, -1 on failure.
int WaitReadable(int fd, DWORD dwMilliseconds)
{
    auto const deadline = Clock::now() + std::chrono::milliseconds(dwMilliseconds);
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd, POLLIN, 0};
        int const n = ::poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (n >= 0) {
            return n > 0 && (entry.revents & POLLNVAL) ? -1 : n;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

ssize_t ReadRetrying(int fd, void *pBuffer, DWORD cb)
{
    ssize_t n;
    do {
        n = ::read(fd, pBuffer, cb);
    } while (n < 0 && errno == EINTR);
    return n;
}

} // namespace

bool PlatIsFifo(char const *pszName)
{
    struct stat st;
    return ::stat(pszName, &st) == 0 && S_ISFIFO(st.st_mode);
}

bool CPlatFifo::Open(char const *pszName)
{
    Close();
    // For writing too: with a writer of our own the FIFO never comes to its end.
    m_fd = ::open(pszName, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        SetLastError(PlatErrorFromErrno(errno));
    }
    return m_fd >= 0;
}

void CPlatFifo::Close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = -1;
}

int CPlatFifo::Read(void *pBuffer, DWORD cb, DWORD dwMilliseconds)
{
    int const nReady = WaitReadable(m_fd, dwMilliseconds);
    if (nReady <= 0) {
        return nReady;
    }
    ssize_t const n = ReadRetrying(m_fd, pBuffer, cb);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return 0;
    }
    return static_cast<int>(n);
}

namespace {

// A read from the terminal would stop a program in its shell's background.
bool IsOthersTerminal()
{
    return ::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
}

// Blocks the signal that stops such a program, should it go to the background just now: the read fails.
ssize_t ReadUnlessStopped(void *pBuffer, DWORD cb)
{
    sigset_t blocked;
    sigset_t former;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTTIN);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &former);
    ssize_t const n = ReadRetrying(STDIN_FILENO, pBuffer, cb);
    ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return n;
}

} // namespace

int PlatReadInput(void *pBuffer, DWORD cb, DWORD dwMilliseconds)
{
    if (IsOthersTerminal()) {
        ::poll(nullptr, 0, static_cast<int>(dwMilliseconds));
        return 0;
    }
    int const nReady = WaitReadable(STDIN_FILENO, dwMilliseconds);
    if (nReady <= 0) {
        return nReady;
    }
    ssize_t const n = ReadUnlessStopped(pBuffer, cb);
    if (n < 0 && IsOthersTerminal()) {
        return 0;
    }
    return n > 0 ? static_cast<int>(n) : -1;
}
