#include "web/web_tasks.h"

#include "platform/check.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace {

constexpr std::chrono::seconds kIdleTime{10}; // a thread without work ends after it

} // namespace

CWebTasks::~CWebTasks()
{
    shutdown();
}

void CWebTasks::enqueue(std::function<void()> fn)
{
    std::list<std::thread> ended;
    {
        CPlatGuard const lock(m_mx);
        m_waiting.push_back(std::move(fn));
        if (m_cIdle < m_waiting.size()) {
            StartThread();
        }
        ended.swap(m_ended);
    }
    m_cv.notify_one();
    for (std::thread &thread : ended) {
        thread.join();
    }
}

void CWebTasks::StartThread()
{
    if (m_cRunning - m_cStreams >= m_limits.cThreads) {
        return; // one of them will come to it
    }
    try {
        m_threads.emplace_back([this] { Work(); });
        ++m_cRunning;
    } catch (std::system_error const &) {
        // No more threads: those that run have to do.
    }
}

// More than enough for requests, now that a stream has given its thread back.
bool CWebTasks::ShouldEnd() const
{
    return m_cRunning - m_cStreams > m_limits.cThreads;
}

void CWebTasks::Work()
{
    CPlatWaitGuard lock(m_mx);
    for (;;) {
        ++m_cIdle;
        bool const fWork = m_cv.wait_for(lock.Native(), kIdleTime, [&]() PLAT_REQUIRES(m_mx) {
            return m_fEnding || !m_waiting.empty();
        });
        --m_cIdle;
        if (m_waiting.empty() && (m_fEnding || !fWork)) {
            break;
        }
        std::function<void()> const fn = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        fn();
        lock.lock();
        if (ShouldEnd() && m_cIdle >= m_waiting.size()) {
            break;
        }
    }
    PLAT_CHECK(m_cRunning > 0);
    --m_cRunning;
    auto const it = std::find_if(m_threads.begin(), m_threads.end(), [](std::thread const &thread) {
        return thread.get_id() == std::this_thread::get_id();
    });
    PLAT_CHECK(it != m_threads.end());
    m_ended.splice(m_ended.end(), m_threads, it);
    m_cv.notify_all();
}

void CWebTasks::shutdown()
{
    std::list<std::thread> ended;
    {
        CPlatWaitGuard lock(m_mx);
        m_fEnding = true;
        m_cv.notify_all();
        m_cv.wait(lock.Native(), [&]() PLAT_REQUIRES(m_mx) { return m_threads.empty(); });
        ended.swap(m_ended);
    }
    for (std::thread &thread : ended) {
        thread.join();
    }
}

std::shared_ptr<void> CWebTasks::BeginStream()
{
    CPlatGuard const lock(m_mx);
    if (m_cStreams == m_limits.cStreams) {
        return nullptr;
    }
    ++m_cStreams;
    if (m_cIdle < m_waiting.size()) {
        StartThread(); // in the place of the one that the stream takes
    }
    return std::shared_ptr<void>(this, [](void *p) {
        auto *const pTasks = static_cast<CWebTasks *>(p);
        CPlatGuard const lock2(pTasks->m_mx);
        PLAT_CHECK(pTasks->m_cStreams > 0);
        --pTasks->m_cStreams;
    });
}
