#include "hub/waiter.h"

#include "platform/descriptor.h"
#include "platform/readiness.h"

#include <algorithm>
#include <new>

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

int CHubWaiter::Wait(int nDescriptor, int nWanted, milliseconds limit)
{
    constexpr milliseconds kMost{3600 * 1000};
    bool bWoken = false;
    int const nReady =
        PlatDescriptorWait(nDescriptor, nWanted, m_nReadiness, &bWoken,
                           static_cast<DWORD>(std::clamp(limit, milliseconds(0), kMost).count()));
    if (bWoken) {
        CPlatGuard const lock(m_mx);
        m_bWoken = false;
        PlatReadinessSet(m_nReadiness, false);
    }
    return nReady;
}
