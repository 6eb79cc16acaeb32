#pragma once

// The server's threads. A request takes one for as long as its connection lives, and so does an event stream,
// which may live for days: so a stream does not count among the threads for requests, and has a limit of its own.

#include "platform/lock.h"

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <thread>

/// The queue of connections that wait for a thread, and the threads. Any thread may call.
class CWebTasks final : public httplib::TaskQueue {
public:
    /// What the server and its streams share; outlives both.
    struct Limits {
        std::size_t cThreads = 16; ///< for requests, at once
        std::size_t cStreams = 64; ///< open at once
    };

    /// Starts no thread before there is something to do.
    explicit CWebTasks(Limits const &limits) : m_limits(limits) {}
    ~CWebTasks() override;

    /// Hands a connection to a thread, now or when one is free.
    void enqueue(std::function<void()> fn) override;
    /// Runs what waits and ends all threads; streams have to be told to end before.
    void shutdown() override;

    /// Declares the calling task a stream until the answer is let go of, by any thread. Null when there are
    /// enough of them. The queue must outlive it.
    std::shared_ptr<void> BeginStream();

private:
    void Work();
    void StartThread() PLAT_REQUIRES(m_mx);
    bool ShouldEnd() const PLAT_REQUIRES(m_mx);

    Limits const m_limits;
    CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    std::deque<std::function<void()>> m_waiting PLAT_GUARDED_BY(m_mx);
    std::list<std::thread> m_threads PLAT_GUARDED_BY(m_mx);
    std::list<std::thread> m_ended PLAT_GUARDED_BY(m_mx); // have nothing more to do
    std::size_t m_cRunning PLAT_GUARDED_BY(m_mx) = 0;     // threads, those of streams included
    std::size_t m_cIdle PLAT_GUARDED_BY(m_mx) = 0;
    std::size_t m_cStreams PLAT_GUARDED_BY(m_mx) = 0;
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
};
