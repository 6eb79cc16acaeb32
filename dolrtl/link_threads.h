#pragma once
/// @file
/// The threads that all access objects of a process share, and who owns them.
///
/// The first object that takes a share starts them: one that waits for all links, and one that calls back, beside
/// which others come when they are needed. Whoever gives the last share back ends them, and waits for their ends,
/// before the destructor of the last object returns: no code of this module runs any more when it is let go of. The
/// exception is a thread inside a callback in which its object was deleted: it keeps the module loaded itself.
///
/// A share that is taken while the last one is being given back begins a new generation; both may be there for a
/// moment. Each object stays with its own.
///
/// A process that was forked has none of these threads: its parent's objects are of no use in it, and not to be
/// deleted there. Objects that it makes itself get threads of their own.
#include "devlink/link_loop.h"
#include "dolrtl/callback_threads.h"

#include <memory>

struct CProcessShare;

/// One generation of them, from the first share to the last.
class CLinkThreads {
public:
    /// A share, for one object. Null when there are no threads, or no set of sockets, to be had. Any thread. May
    /// throw std::bad_alloc.
    static CLinkThreads *Share();
    /// Gives a share back; the object has left the loop and the callbacks. On any thread but the loop's, with no lock.
    void GiveBack();

    CLinkThreads(CLinkThreads const &) = delete;
    CLinkThreads &operator=(CLinkThreads const &) = delete;

    CLinkLoop &Loop() { return m_loop; }                    ///< that waits
    CCallbackThreads &Callbacks() { return *m_pCallbacks; } ///< that call back

private:
    friend struct CProcessShare;

    explicit CLinkThreads(CProcessShare &process);
    ~CLinkThreads();

    CProcessShare &m_process;
    CLinkLoop m_loop;
    std::shared_ptr<CCallbackThreads> const m_pCallbacks; // its threads have shares of their own
};
