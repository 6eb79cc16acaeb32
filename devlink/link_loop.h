#pragma once
/// @file
/// One thread that waits for the sockets and the times of any number of owners.
///
/// Why no wake-up is lost. The thread looks for the next time and notes until when it will sleep in one hold of
/// the lock. Whoever brings a time forward does so under the same lock, and if the thread sleeps for longer,
/// wakes it by way of the set, which remembers that: a wake-up between the look and the sleep ends the sleep at
/// once. While an owner is served, its time stands at "never", and is only ever brought forward: a WakeAt of
/// another thread meanwhile is not undone by what the owner answers.
#include "devlink/link_stream.h"
#include "platform/lock.h"
#include "platform/socketset.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>

/// The thread, and whom it serves. Every function may be called by any thread, unless it says otherwise.
class CLinkLoop {
public:
    /// Whom it serves. Both are called on the loop's thread, one at a time, without a lock of the loop's, and
    /// let no exception out.
    class CClient {
    public:
        /// The socket that was added under that number can be read, or written. It may be one that has left since.
        virtual void OnReady(DWORD dwSocket, bool fRead, bool fWrite) = 0;
        /// After OnReady, and when it is time, or a little before: when it will be time again, LinkTime::max()
        /// for never.
        virtual LinkTime OnTime(LinkTime now) = 0;

    protected:
        ~CClient() = default;
    };

    /// A client's number; 0 is none, and no number is given twice.
    using Place = std::uint32_t;

    CLinkLoop() = default;
    ~CLinkLoop(); ///< ends the thread and waits for it; all clients have been detached
    CLinkLoop(CLinkLoop const &) = delete;
    CLinkLoop &operator=(CLinkLoop const &) = delete;

    /// Starts the thread; once. False when there is none to be had, or no set of sockets.
    bool Start();

    /// Serves the client from now on; it has no time yet. May throw std::bad_alloc, as nothing else here does.
    Place Attach(CClient &client) PLAT_EXCLUDES(m_mx);
    /// Serves it no more, and waits until it is not being served. Not from inside it, nor with a lock that it
    /// takes. Its sockets have left.
    void Detach(Place place) PLAT_EXCLUDES(m_mx);

    /// @{
    /// Sockets of a client, under a number of its own. They leave before they are closed.
    bool Add(Place place, SOCKET s, DWORD dwSocket);
    bool Change(Place place, SOCKET s, DWORD dwSocket, bool fRead, bool fWrite);
    void Remove(SOCKET s);
    /// @}

    /// It is time for the client then, or sooner.
    void WakeAt(Place place, LinkTime when) PLAT_EXCLUDES(m_mx);
    /// It is time for it now.
    void Wake(Place place) { WakeAt(place, LinkTime::min()); }

private:
    using Times = std::set<std::pair<LinkTime, Place>>;

    struct Entry {
        CClient *pClient;
        Times::iterator time;
    };

    void Run();
    void Serve(Place place, CPlatSocketSet::Ready const *pReady) PLAT_EXCLUDES(m_mx);
    bool ServeDue() PLAT_EXCLUDES(m_mx);
    DWORD FallAsleep() PLAT_EXCLUDES(m_mx);
    void WakeUp() PLAT_EXCLUDES(m_mx);
    void Move(Entry &entry, LinkTime when) PLAT_REQUIRES(m_mx);

    CSocketLibrary m_library;
    CPlatSocketSet m_set;
    std::thread m_thread;

    CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    std::map<Place, Entry> m_clients PLAT_GUARDED_BY(m_mx);
    Times m_times PLAT_GUARDED_BY(m_mx); // one of each client
    Place m_lastPlace PLAT_GUARDED_BY(m_mx) = 0;
    Place m_serving PLAT_GUARDED_BY(m_mx) = 0; // whom the thread is inside of
    // The thread sleeps until then; min() while it is awake, or has been woken.
    LinkTime m_asleepUntil PLAT_GUARDED_BY(m_mx) = LinkTime::min();
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
};
