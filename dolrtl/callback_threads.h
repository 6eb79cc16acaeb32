#pragma once
/// @file
/// The threads of a process that call back: a few for all of its access objects.
///
/// A callback may take its time, and one of a broken link waits for the device again. So whoever has waited for
/// its turn for 10 ms finds all threads inside callbacks, and more of them are started, until nobody waits so long
/// or there are no more to be had. The loop that waits for the links looks after that.
///
/// A thread that has called foreign code keeps the modules that it came through from being unloaded until it ends.
/// So none of them calls back for longer than a second: it then leaves, the last one after it has a successor. One
/// that had nothing to do for a second leaves, too, but for the last.
///
/// Who ends them: whoever calls End. It waits for all but those that are still inside a callback, which can only be
/// callbacks whose objects were deleted in them; they end by themselves when it returns, and keep this module
/// loaded until then.
#include "devlink/link_loop.h"
#include "platform/lock.h"

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <thread>

/// The threads. Every function may be called by any thread.
class CCallbackThreads final : public CLinkLoop::CClient,
                               public std::enable_shared_from_this<CCallbackThreads> {
private:
    struct Worker;

public:
    /// Who calls back. Its turns come one at a time.
    class CClient {
    public:
        /// Calls back once, without a lock of the threads'. Whether more waits; after a Forget inside it nobody looks.
        virtual bool OnTurn() noexcept = 0;

    protected:
        CClient() = default;
        virtual ~CClient() = default;

    private:
        friend class CCallbackThreads;

        // All under the threads' lock.
        CClient *m_pNext = nullptr;
        CClient *m_pPrev = nullptr;
        LinkTime m_since;            // when it came into the queue
        Worker *m_pWorker = nullptr; // that it is inside of
        bool m_fQueued = false;      // waits for its turn
        bool m_fAgain = false;       // has been queued again during it
        bool m_fForgotten = false;
    };

    /// loop must outlive End.
    explicit CCallbackThreads(CLinkLoop &loop) : m_loop(loop) {}
    CCallbackThreads(CCallbackThreads const &) = delete;
    CCallbackThreads &operator=(CCallbackThreads const &) = delete;

    /// Starts the first thread. False when there is none to be had. May throw std::bad_alloc.
    bool Start() PLAT_EXCLUDES(m_mx);
    /// Ends them; all clients have been forgotten. Once, after Start, not on the loop's thread.
    void End() PLAT_EXCLUDES(m_mx);

    /// The client gets a turn, and another one if it is inside one. Allocates nothing.
    void Queue(CClient &client) PLAT_EXCLUDES(m_mx);
    /// It gets none any more. Waits for its turn in progress, except on that turn's own thread.
    void Forget(CClient &client) PLAT_EXCLUDES(m_mx);

    /// @{
    /// On the loop's thread: starts more threads when they are missing.
    void OnReady(DWORD, bool, bool) override {}
    LinkTime OnTime(LinkTime now) override PLAT_EXCLUDES(m_mx);
    /// @}

private:
    bool StartThread() noexcept;
    void Run() PLAT_EXCLUDES(m_mx);
    bool WaitForTurn(CPlatWaitGuard &lock, LinkTime until) PLAT_REQUIRES(m_mx);
    void TakeTurn() PLAT_REQUIRES(m_mx);
    bool Leave() PLAT_REQUIRES(m_mx);
    void Push(CClient &client) PLAT_REQUIRES(m_mx);
    void Unlink(CClient &client) PLAT_REQUIRES(m_mx);
    void CallForMore() PLAT_REQUIRES(m_mx);
    std::size_t Missing(LinkTime now, LinkTime *pNext) PLAT_REQUIRES(m_mx);

    CLinkLoop &m_loop; // not looked at after End
    CLinkLoop::Place m_place = 0;

    CPlatMutex m_mx;                  // before the loop's
    std::condition_variable m_cvWork; // a turn waits, or the end
    std::condition_variable m_cvDone; // a turn is over, or a thread
    CClient *m_pFirst PLAT_GUARDED_BY(m_mx) = nullptr;
    CClient *m_pLast PLAT_GUARDED_BY(m_mx) = nullptr;
    std::size_t m_cQueued PLAT_GUARDED_BY(m_mx) = 0;
    std::size_t m_cThreads PLAT_GUARDED_BY(m_mx) = 0; // those that are being started, too
    std::size_t m_cIdle PLAT_GUARDED_BY(m_mx) = 0;    // of them wait for work
    std::size_t m_cInside PLAT_GUARDED_BY(m_mx) = 0;  // of them are inside a turn
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
};
