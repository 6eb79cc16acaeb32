#include "platform/readiness.h"

#include "platform/posix/error.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

LONG_PTR PlatReadinessOpen()
{
    int const fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        SetLastError(PlatErrorFromErrno(errno));
    }
    return fd;
}

// Neither blocks nor fails: the counter is 0 or 1.
void PlatReadinessSet(LONG_PTR nReadiness, bool fReady)
{
    eventfd_t nCount = 0;
    int const fd = static_cast<int>(nReadiness);
    fReady ? eventfd_write(fd, 1) : eventfd_read(fd, &nCount);
}

void PlatReadinessClose(LONG_PTR nReadiness)
{
    if (nReadiness != -1) {
        close(static_cast<int>(nReadiness));
    }
}
