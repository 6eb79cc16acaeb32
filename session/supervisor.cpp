#include "session/supervisor.h"

#include "platform/check.h"

#include <system_error>

CSupervisor::CSupervisor(std::size_t cMaxThreads) : m_cMaxThreads(cMaxThreads)
{
    m_threads.reserve(m_cMaxThreads); // so that a thread that was started is never lost
    m_cWaiting = 1;
    m_threads.emplace_back(&CSupervisor::RunThread, this);
}

CSupervisor::~CSupervisor()
{
    {
        CPlatWaitGuard lock(m_mx);
        m_cv.wait(lock.Native(), [this]() PLAT_REQUIRES(m_mx) { return m_work.empty(); });
        PLAT_CHECK(m_due.empty());
        m_bEnding = true;
    }
    m_cv.notify_all();
    for (std::thread &thread : m_threads) {
        thread.join();
    }
}

void CSupervisor::Add(std::shared_ptr<CSupervised> pWork)
{
    CPlatGuard const lock(m_mx);
    CSupervised const *const pKey = pWork.get();
    Entry &entry = m_work[pKey];
    entry.pWork = std::move(pWork);
    SetDue(entry, SessionClock::now());
}

void CSupervisor::Wake(CSupervised const *pWork)
{
    CPlatGuard const lock(m_mx);
    auto const it = m_work.find(pWork);
    if (it == m_work.end()) {
        return;
    }
    Entry &entry = it->second;
    if (entry.bRunning) {
        entry.bWoken = true;
    } else {
        m_due.erase({entry.tpDue, pWork});
        SetDue(entry, SessionClock::now());
    }
}

void CSupervisor::RunThread()
{
    CPlatWaitGuard lock(m_mx);
    while (!m_bEnding) {
        if (m_due.empty()) {
            m_cv.wait(lock.Native());
            continue;
        }
        auto const [tpDue, pKey] = *m_due.begin();
        if (tpDue == SessionTime::max()) {
            m_cv.wait(lock.Native());
        } else if (tpDue > SessionClock::now()) {
            m_cv.wait_until(lock.Native(), tpDue);
        } else {
            RunStep(pKey);
        }
    }
}

void CSupervisor::RunStep(CSupervised const *pKey)
{
    Entry &entry = m_work.at(pKey);
    PLAT_CHECK(!entry.bRunning && m_cWaiting > 0);
    m_due.erase({entry.tpDue, pKey});
    entry.bRunning = true;
    entry.bWoken = false;
    --m_cWaiting;
    if (!m_due.empty()) {
        SeeThatOneWaits();
    }
    m_mx.unlock();
    auto const next = entry.pWork->Step();
    m_mx.lock();
    ++m_cWaiting;
    entry.bRunning = false;
    if (next) {
        SetDue(entry, entry.bWoken ? SessionClock::now() : *next);
        return;
    }
    PLAT_CHECK(!m_due.contains({entry.tpDue, pKey})); // nothing made it due while it ran
    auto pWork = std::move(entry.pWork);
    m_work.erase(pKey);
    m_cv.notify_all();
    m_mx.unlock();
    pWork.reset(); // it may be the last to hold it
    m_mx.lock();
}

// Also for an object whose place in m_due has been taken out.
void CSupervisor::SetDue(Entry &entry, SessionTime tpDue)
{
    entry.tpDue = tpDue;
    m_due.insert({tpDue, entry.pWork.get()});
    SeeThatOneWaits();
    m_cv.notify_all();
}

// Where no further thread can be had the work waits for one that is busy.
void CSupervisor::SeeThatOneWaits()
{
    if (m_cWaiting > 0 || m_threads.size() == m_cMaxThreads) {
        return;
    }
    try {
        m_threads.emplace_back(&CSupervisor::RunThread, this);
        ++m_cWaiting;
    } catch (std::system_error const &) {
        // none to be had now
    }
}
