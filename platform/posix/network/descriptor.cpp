#include "platform/descriptor.h"

#include <algorithm>
#include <climits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

static_assert(kPlatReadable == POLLIN && kPlatWritable == POLLOUT);

int PlatDescriptorWait(int nDescriptor, int nWanted, LONG_PTR nReadiness, bool *pfSet,
                       DWORD dwMilliseconds)
{
    // A negative descriptor is passed over by the call itself.
    pollfd fds[] = {{static_cast<int>(nReadiness), POLLIN, 0},
                    {nDescriptor, static_cast<short>(nWanted), 0}};
    int const n = ::poll(fds, 2, static_cast<int>(std::min<DWORD>(dwMilliseconds, INT_MAX)));
    *pfSet = n > 0 && fds[0].revents != 0;
    if (n <= 0) {
        return 0;
    }
    bool const fBroken = (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    return fBroken ? POLLIN | POLLOUT : fds[1].revents & (POLLIN | POLLOUT);
}

void PlatDescriptorAckAtOnce(int nDescriptor)
{
    int const nOn = 1;
    ::setsockopt(nDescriptor, IPPROTO_TCP, TCP_QUICKACK, &nOn, sizeof nOn);
}
