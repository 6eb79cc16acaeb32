#include "hub/waiter.h"

#include "platform/readiness.h"

#include <algorithm>
#include <new>
#include <poll.h>

using std::chrono::milliseconds;

CHubWaiter::CHubWaiter() : m_nReadiness(PlatReadinessOpen())
{
    if (m_nReadiness == -1) {
        throw std::bad_alloc();
    }
}

CHubWaiter::~CHubWaiter()
{
    PlatReadinessClose(m_nReadiness);
}

void CHubWaiter::Wake()
{
    CPlatGuard const lock(m_mx);
    if (!m_bWoken) {
        m_bWoken = true;
        PlatReadinessSet(m_nReadiness, true);
    }
}

CHubWaiter::Ready CHubWaiter::Wait(int nDescriptor, bool bRead, bool bWrite, milliseconds limit)
{
    // A negative descriptor is passed over by the call itself.
    pollfd fds[] = {
        {static_cast<int>(m_nReadiness), POLLIN, 0},
        {nDescriptor, static_cast<short>((bRead ? POLLIN : 0) | (bWrite ? POLLOUT : 0)), 0}};
    constexpr milliseconds kMost{3600 * 1000};
    int const n =
        ::poll(fds, 2, static_cast<int>(std::clamp(limit, milliseconds(0), kMost).count()));
    if (n <= 0) {
        return {};
    }
    if (fds[0].revents) {
        CPlatGuard const lock(m_mx);
        m_bWoken = false;
        PlatReadinessSet(m_nReadiness, false);
    }
    bool const bBroken = fds[1].revents & (POLLERR | POLLHUP | POLLNVAL);
    return {bBroken || (fds[1].revents & POLLIN), bBroken || (fds[1].revents & POLLOUT)};
}
