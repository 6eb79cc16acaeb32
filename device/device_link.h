#pragma once
/// @file
/// One connection of a client to the software device: its frames as they come, and what waits to be sent, so
/// that a client which does not read holds up nobody but itself. No thread, no lock: the device's loop says
/// when there is something to do.
#include "device/device_model.h"
#include "devlink/link_frame.h"
#include "devlink/link_stream.h"

#include <deque>
#include <map>
#include <string>

/// One client's connection, as the device sees it. All of it under the device's lock.
class CDeviceLink {
public:
    /// What the client has registered an object with.
    struct Registration {
        WORD wTrapId = 0;  ///< its own number for the object's traps
        BYTE dataType = 0; ///< a LinkDataType
    };

    /// Takes the socket over.
    CDeviceLink(ClientId id, SOCKET s);

    SOCKET Socket() const { return m_stream.Socket(); } ///< to wait for; INVALID_SOCKET once closed

    /// Takes in what has come, when something has. False at the end of the connection.
    bool Read() { return m_stream.ReadSome(); }
    /// The next whole frame of what has come: eRX_FRAME, eRX_TIMEOUT for none yet, or eRX_GARBAGE.
    LinkReceive Next(LinkFrame *pFrame, LinkTime now);

    /// Queues bytes to be sent, not before the given time. Order is kept. A client that lets too much
    /// pile up is cut off.
    void Post(LinkBytes bytes, LinkTime due);
    /// Ends the link once all that was posted before has been sent.
    void PostEnd();
    /// Tells the client that nothing more comes, once all that was posted before has been sent. The link
    /// ends when the client hangs up, which says that it has received all.
    void PostFinish();
    /// Sends what is due, as far as the client takes it.
    void Send(LinkTime now);
    /// When Send or Silence has something to do again, whatever else happens.
    LinkTime Due() const;
    bool AwaitsRoom() const
    {
        return m_stuckSince != LinkTime::max();
    } ///< the client takes nothing now

    /// Whether the client has been silent for too long.
    bool IsSilent(LinkTime now) const { return now >= m_silentAt; }
    /// Nothing more is to be sent, or can be: the link is to be closed.
    bool IsEnded() const { return m_fEnded; }
    /// Closes the connection; the loop waits for it no more.
    void Close();

    /// @{
    /// Who the client is, and where it is connected from.
    ClientId Id() const { return m_id; }
    LinkAddress Peer() const { return m_stream.Peer(); }
    /// @}

    bool fGone = false;                        ///< the device does not know it any more
    bool fHello = false;                       ///< the client has said who it is
    bool fAwaitsRoom = false;                  ///< the loop waits for room, too
    LinkTime lastRequest;                      ///< pings do not count
    BYTE use = 0;                              ///< of LinkUse, after fHello
    std::string strAddress;                    ///< the address text of a local link
    std::map<int, Registration> registrations; ///< by row

private:
    struct Outgoing {
        LinkBytes bytes; // none: the end
        LinkTime due;
        bool fFinish = false; // without bytes: only that of our direction
    };

    void Queue(Outgoing outgoing);
    void End();
    bool SendFirst(LinkTime now); // false when it has to wait, or the link is at its end

    ClientId const m_id;
    CLinkStream m_stream;
    LinkTime m_silentAt;
    LinkTime m_stuckSince = LinkTime::max();
    std::deque<Outgoing> m_outgoing;
    std::size_t m_cbSent = 0; // of the first
    bool m_fEnded = false;
};
