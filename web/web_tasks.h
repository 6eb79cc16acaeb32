#pragma once

// The server's threads. A request takes one for as long as its connection lives, and so does an event stream,
// which may live for days: so a stream does not count among the threads for requests, and has a limit of its own.

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
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
    void StartThread();     // with the lock held
    bool ShouldEnd() const; // with the lock held

    Limits const m_limits;
    std::mutex m_mx; // guards what follows
    std::condition_variable m_cv;
    std::deque<std::function<void()>> m_waiting;
    std::list<std::thread> m_threads;
    std::list<std::thread> m_ended; // have nothing more to do
    std::size_t m_cRunning = 0;     // threads, those of streams included
    std::size_t m_cIdle = 0;
    std::size_t m_cStreams = 0;
    bool m_fEnding = false;
};
