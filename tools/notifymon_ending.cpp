#include "tools/notifymon_ending.h"

#include "tools/notifymon_options.h"
#include "tools/usage.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kSameRequest{100};

} // namespace

CEnding::CEnding(double rTimeout) : m_thread([this, rTimeout] { Run(rTimeout); }) {}

CEnding::~CEnding()
{
    {
        CPlatGuard const lock(m_mx);
        m_bDone = true;
    }
    m_cv.notify_all();
    m_thread.join();
}

void CEnding::SetListener(std::function<void(SessionTime)> fnOnEnd)
{
    CPlatWaitGuard lock(m_mx);
    m_cv.wait(lock.Native(), [this]() PLAT_REQUIRES(m_mx) { return !m_bTelling; });
    m_fnOnEnd = std::move(fnOnEnd);
    if (m_bAsked && m_fnOnEnd) {
        m_fnOnEnd(m_tpLimit);
    }
}

void CEnding::SetLastAct(std::function<void()> fnLastAct)
{
    CPlatGuard const lock(m_mx);
    m_fnLastAct = std::move(fnLastAct);
}

void CEnding::Ask(bool bAtOnce)
{
    {
        CPlatGuard const lock(m_mx);
        SessionTime const now = SessionClock::now();
        if (m_bAsked) {
            if (bAtOnce && now > m_tpLimit - kEndLimit + kSameRequest) {
                EndByForce();
            }
            return;
        }
        m_bAsked = true;
        m_tpLimit = now + kEndLimit;
    }
    m_cv.notify_all();
}

bool CEnding::IsAsked() const
{
    CPlatGuard const lock(m_mx);
    return m_bAsked;
}

bool CEnding::IsTimedOut() const
{
    CPlatGuard const lock(m_mx);
    return m_bTimedOut;
}

SessionTime CEnding::Limit() const
{
    CPlatGuard const lock(m_mx);
    return m_bAsked ? m_tpLimit : SessionClock::now() + kEndLimit;
}

void CEnding::Run(double rTimeout)
{
    CPlatWaitGuard lock(m_mx);
    auto const fnIsOver = [this]() PLAT_REQUIRES(m_mx) { return m_bAsked || m_bDone; };
    if (rTimeout <= 0) {
        m_cv.wait(lock.Native(), fnIsOver);
    } else if (!m_cv.wait_for(lock.Native(), std::chrono::duration<double>(rTimeout), fnIsOver)) {
        m_bAsked = true;
        m_bTimedOut = true;
        m_tpLimit = SessionClock::now() + kEndLimit;
    }
    if (!m_bAsked) {
        return;
    }
    if (auto const fnOnEnd = m_fnOnEnd) {
        SessionTime const tpLimit = m_tpLimit;
        m_bTelling = true;
        lock.unlock();
        fnOnEnd(tpLimit);
        lock.lock();
        m_bTelling = false;
        m_cv.notify_all();
    }
    if (!m_cv.wait_until(lock.Native(), m_tpLimit,
                         [this]() PLAT_REQUIRES(m_mx) { return m_bDone; })) {
        EndByForce();
    }
}

// Under the lock. Nobody may take what we say either: that is waited for a moment, and no longer.
void CEnding::EndByForce()
{
    if (m_fnLastAct) {
        m_fnLastAct();
    }
    static std::atomic<bool> s_bSaid{false};
    std::thread([] {
        std::fputs("notifymon: ended by force, with something still waiting\n", stderr);
        s_bSaid = true;
    }).detach();
    for (int i = 0; i < 10 && !s_bSaid; ++i) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    Leave(eXC_FAILED);
}

void CEnding::Leave(int nExitCode)
{
    std::_Exit(nExitCode);
}
