#include "platform/posix/kernel/signalguard.h"

#include <cerrno>
#include <ctime>
#include <initializer_list>

CWriteSignalGuard::CWriteSignalGuard()
{
    sigset_t pending;
    sigset_t both;
    ::sigpending(&pending);
    sigemptyset(&both);
    sigemptyset(&m_ours);
    for (int const nSignal : {SIGPIPE, SIGXFSZ}) {
        sigaddset(&both, nSignal);
        if (sigismember(&pending, nSignal) != 1) {
            sigaddset(&m_ours, nSignal);
        }
    }
    ::pthread_sigmask(SIG_BLOCK, &both, &m_before);
}

CWriteSignalGuard::~CWriteSignalGuard()
{
    int const nErrno = errno;
    timespec const tsNone = {};
    while (::sigtimedwait(&m_ours, nullptr, &tsNone) > 0 || errno == EINTR) {
    }
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    errno = nErrno;
}
