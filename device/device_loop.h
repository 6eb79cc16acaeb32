#pragma once
/// @file
/// One thread that waits for the sockets and the times of any number of devices.

#include "devlink/link_stream.h"
#include "platform/lock.h"
#include "platform/socketset.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <thread>

/// The thread, and whom it serves. Every function may be called by any thread, unless it says otherwise.
class CDeviceLoop {
public:
    /// Whom it serves. Both are called on the loop's thread, one at a time, without a lock of the loop's.
    class CClient {
    public:
        /// The socket that was added under that number can be read, or written.
        virtual void OnReady(DWORD dwSocket, bool fRead, bool fWrite) = 0;
        /// After OnReady, and when it is time: when it will be time again, LinkTime::max() for never.
        virtual LinkTime OnTime(LinkTime now) = 0;

    protected:
        ~CClient() = default;
    };

    /// A client's number; 0 is none.
    using Place = std::uint32_t;

    CDeviceLoop() = default;
    ~CDeviceLoop(); ///< ends the thread; all clients have been detached
    CDeviceLoop(CDeviceLoop const &) = delete;
    CDeviceLoop &operator=(CDeviceLoop const &) = delete;

    /// Starts the thread; once. False with the reason.
    bool Start(std::string *pstrError);

    /// Serves the client from now on.
    Place Attach(CClient &client);
    /// Serves it no more, and waits until it is not being served. Not from inside it. Its sockets have left.
    void Detach(Place place);

    /// @{
    /// Sockets of a client, under a number of its own. They leave before they are closed.
    bool Add(Place place, SOCKET s, DWORD dwSocket);
    void Change(Place place, SOCKET s, DWORD dwSocket, bool fRead, bool fWrite);
    void Remove(SOCKET s);
    /// @}

    /// It is time for the client now.
    void Wake(Place place);

private:
    struct Entry {
        CClient *pClient = nullptr;
        LinkTime due = LinkTime::min();
    };

    void Run();
    void Serve(Place place, CPlatSocketSet::Ready const *pReady); // null: only its time
    DWORD UntilNext();
    bool TakeDue(std::vector<Place> *pDue);

    CSocketLibrary m_library;
    CPlatSocketSet m_set;
    std::thread m_thread;

    CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    std::map<Place, Entry> m_clients PLAT_GUARDED_BY(m_mx);
    Place m_lastPlace PLAT_GUARDED_BY(m_mx) = 0; // no place is given twice
    Place m_serving PLAT_GUARDED_BY(m_mx) = 0;   // whom the thread is inside of
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
};
