#pragma once
/*
 * One connection of a client to the software device: a thread that receives its frames, and one that
 * sends to it, so that a client which does not read holds up nobody but itself.
 */
#include "device/device_model.h"
#include "devlink/link_frame.h"
#include "devlink/link_stream.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class CDeviceLink {
public:
    // What the receiving thread calls, without a lock of the link's.
    class Owner {
    public:
        // A frame of the client's has come.
        virtual void OnFrame(CDeviceLink &link, LinkFrame const &frame) = 0;
        virtual void OnEnd(CDeviceLink &link,
                           std::string const &strReason) = 0; // once, the last call
    protected:
        ~Owner() = default;
    };

    // What the client has registered an object with.
    struct Registration {
        WORD wTrapId = 0;  // its own number for the object's traps
        BYTE dataType = 0; // a LinkDataType
    };

    // Takes the socket over; the owner must outlive the link. No thread runs yet.
    CDeviceLink(ClientId id, SOCKET s, Owner &owner);
    ~CDeviceLink(); // ends the link and waits for both threads; not on one of them

    // Starts both threads. Once.
    void Start();

    // Queues bytes to be sent, not before the given time. Order is kept. A client that lets too much
    // pile up is cut off.
    void Post(LinkBytes bytes, LinkTime due);
    // Ends the link once all that was posted before has been sent.
    void PostEnd();
    // Ends the link at once. Any thread; does not wait.
    void Close();

    // Both threads have ended; destroying the link does not wait.
    bool IsFinished() const { return m_cRunning == 0; }

    // Who the client is, and where it is connected from. Any thread.
    ClientId Id() const { return m_id; }
    LinkAddress Peer() const { return m_stream.Peer(); }

    // The owner's, under its lock.
    bool fGone = false; // the device does not know it any more
    BYTE use = 0;       // of LinkUse, after fHello
    bool fHello = false;
    std::string strAddress;                    // the address text of a local link
    std::map<int, Registration> registrations; // by row

private:
    struct Outgoing {
        LinkBytes bytes; // none: the end
        LinkTime due;
    };

    void Receive();
    void Send();

    ClientId const m_id;
    Owner &m_owner;
    CLinkStream m_stream;
    std::atomic<int> m_cRunning{0};
    std::thread m_thReceive;
    std::thread m_thSend;

    std::mutex m_mx; // a leaf; guards what follows
    std::condition_variable m_cv;
    std::deque<Outgoing> m_outgoing;
    bool m_fClosed = false;
};
