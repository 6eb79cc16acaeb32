// How the threads find their work, and how nobody is lost.
//
// - Queue puts a client into the queue and wakes an idle thread under one hold of the lock; a thread looks at the
//   queue and becomes idle under one. So a turn is either seen before the sleep, or ends it. A wake-up that meets a
//   thread which has just taken another turn does no harm: it looks again.
// - Queue during the client's own turn leaves a mark that the turn's thread finds when it has the lock again.
// - When there are more turns than idle threads, the loop is asked to look after 10 ms. It looks again for as long
//   as that is so, so that no later call is needed. The count of threads is raised before they are started: End
//   waits for them, too.
// - Locks: a client's own, then this one, then the loop's. No foreign code under any of them.
#include "dolrtl/callback_threads.h"

#include "platform/check.h"
#include "platform/thread.h"

#include <algorithm>
#include <chrono>
#include <new>

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kAtOnce = 4;    // threads that are started as soon as one is missing
constexpr std::size_t kMostMore = 32; // started at a time, beyond those
constexpr milliseconds kPatience{10}; // of who waits for a turn
constexpr milliseconds kNoThread{
    100}; // until one is tried for again, when there was none to be had
constexpr milliseconds kStay{1000};

} // namespace

// What the pool knows of a thread that is inside a turn; on that thread's stack.
struct CCallbackThreads::Worker {
    std::thread::id const id = std::this_thread::get_id();
    bool fForgotten = false; // by a Forget inside the turn: the client may be gone
};

bool CCallbackThreads::Start()
{
    {
        CPlatGuard const lock(m_mx);
        m_cThreads = 1;
    }
    if (!StartThread()) {
        CPlatGuard const lock(m_mx);
        m_cThreads = 0;
        return false;
    }
    m_place = m_loop.Attach(*this);
    return true;
}

// With the thread counted already. It keeps these and its module for as long as it runs.
bool CCallbackThreads::StartThread() noexcept
{
    try {
        return PlatRunDetached([pSelf = shared_from_this()] { pSelf->Run(); });
    } catch (std::bad_alloc const &) {
        return false;
    }
}

void CCallbackThreads::End()
{
    {
        CPlatWaitGuard lock(m_mx);
        PLAT_CHECK(m_cQueued == 0);
        m_fEnding = true;
        m_cvWork.notify_all();
    }
    if (m_place != 0) {
        m_loop.Detach(m_place); // from here on the loop starts none
    }
    CPlatWaitGuard lock(m_mx);
    while (m_cThreads > m_cInside) {
        m_cvDone.wait(lock.Native());
    }
}

void CCallbackThreads::Push(CClient &client)
{
    client.m_fQueued = true;
    client.m_since = LinkClock::now();
    client.m_pNext = nullptr;
    client.m_pPrev = m_pLast;
    (m_pLast ? m_pLast->m_pNext : m_pFirst) = &client;
    m_pLast = &client;
    ++m_cQueued;
    if (m_cQueued > m_cIdle) {
        CallForMore();
    }
    m_cvWork.notify_one();
}

void CCallbackThreads::Unlink(CClient &client)
{
    PLAT_CHECK(client.m_fQueued && m_cQueued > 0);
    (client.m_pPrev ? client.m_pPrev->m_pNext : m_pFirst) = client.m_pNext;
    (client.m_pNext ? client.m_pNext->m_pPrev : m_pLast) = client.m_pPrev;
    client.m_fQueued = false;
    --m_cQueued;
}

// The first few threads at once; the others only when those there are have not come to it soon.
void CCallbackThreads::CallForMore()
{
    if (!m_fEnding) {
        m_loop.WakeAt(m_place,
                      m_cThreads < kAtOnce ? LinkTime::min() : m_pFirst->m_since + kPatience);
    }
}

void CCallbackThreads::Queue(CClient &client)
{
    CPlatGuard const lock(m_mx);
    if (client.m_fForgotten || client.m_fQueued) {
        return;
    }
    if (client.m_pWorker) {
        client.m_fAgain = true;
        return;
    }
    Push(client);
}

void CCallbackThreads::Forget(CClient &client)
{
    CPlatWaitGuard lock(m_mx);
    client.m_fForgotten = true;
    if (client.m_fQueued) {
        Unlink(client);
    }
    if (client.m_pWorker && client.m_pWorker->id == std::this_thread::get_id()) {
        client.m_pWorker->fForgotten = true;
        return;
    }
    while (client.m_pWorker) {
        m_cvDone.wait(lock.Native());
    }
}

// How many threads are to be started now, counted already. *pNext: when to look again.
std::size_t CCallbackThreads::Missing(LinkTime now, LinkTime *pNext)
{
    *pNext = LinkTime::max();
    if (m_fEnding || m_cQueued <= m_cIdle) {
        return 0;
    }
    std::size_t const cWanted = m_cQueued - m_cIdle;
    std::size_t c = m_cThreads < kAtOnce ? std::min(cWanted, kAtOnce - m_cThreads) : 0;
    if (c == 0 && now >= m_pFirst->m_since + kPatience) {
        c = std::min(cWanted, kMostMore);
    }
    *pNext = std::max(now, m_pFirst->m_since) + kPatience;
    m_cThreads += c;
    return c;
}

LinkTime CCallbackThreads::OnTime(LinkTime now)
{
    LinkTime next;
    std::size_t cMissing = 0;
    {
        CPlatGuard const lock(m_mx);
        cMissing = Missing(now, &next);
    }
    while (cMissing > 0 && StartThread()) {
        --cMissing;
    }
    if (cMissing == 0) {
        return next;
    }
    CPlatGuard const lock(m_mx);
    m_cThreads -= cMissing;
    m_cvDone.notify_all();
    return now + kNoThread;
}

// Waits for work, until that time at most. False at the end, or when the time is up.
bool CCallbackThreads::WaitForTurn(CPlatWaitGuard &lock, LinkTime until)
{
    ++m_cIdle;
    bool fInTime = true;
    while (m_cQueued == 0 && !m_fEnding && fInTime) {
        if (until == LinkTime::max()) {
            m_cvWork.wait(lock.Native());
        } else {
            fInTime = m_cvWork.wait_until(lock.Native(), until) == std::cv_status::no_timeout;
        }
    }
    --m_cIdle;
    return m_cQueued > 0 && !m_fEnding;
}

// The turn of the first in the queue, without the lock meanwhile.
void CCallbackThreads::TakeTurn()
{
    PLAT_CHECK(m_cQueued > 0);
    Worker worker;
    CClient &client = *m_pFirst;
    Unlink(client);
    PLAT_CHECK(!client.m_pWorker && !client.m_fForgotten);
    client.m_pWorker = &worker;
    ++m_cInside;
    m_mx.unlock();
    bool const fMore = client.OnTurn();
    m_mx.lock();
    --m_cInside;
    if (!worker.fForgotten) {
        client.m_pWorker = nullptr;
        bool const fAgain = (fMore || client.m_fAgain) && !client.m_fForgotten;
        client.m_fAgain = false;
        if (fAgain) {
            Push(client);
        }
    }
    m_cvDone.notify_all();
}

// Whether the thread may go. The last one goes when another has come in its place.
bool CCallbackThreads::Leave()
{
    bool fMayGo = m_fEnding || m_cThreads > 1;
    if (fMayGo) {
        --m_cThreads;
        if (m_cQueued > m_cIdle) {
            CallForMore();
        }
    } else {
        m_mx.unlock();
        fMayGo = StartThread(); // counted as this one was
        m_mx.lock();
    }
    m_cvDone.notify_all();
    return fMayGo;
}

void CCallbackThreads::Run()
{
    CPlatWaitGuard lock(m_mx);
    bool fCalled = false; // else it keeps nobody's module, and may stay for good as the last one
    LinkTime leave = LinkClock::now() + kStay;
    for (;;) {
        if (WaitForTurn(lock, leave)) {
            TakeTurn();
            leave = fCalled ? leave : LinkClock::now() + kStay;
            fCalled = true;
        }
        if (LinkClock::now() < leave && !m_fEnding) {
            continue;
        }
        if (!fCalled && m_cThreads == 1 && !m_fEnding) {
            leave = LinkTime::max();
        } else if (Leave()) {
            return;
        } else {
            leave = LinkClock::now() + kStay; // no successor
        }
    }
}
