#pragma once

/// @file
/// Many sockets that one thread waits for.

#include "platform/socket.h"

#include <cstddef>
#include <cstdint>
#include <memory>

/// Lets this process have as many sockets open as its user may have, once for all.
void PlatRaiseSocketLimit();

class CPlatSocketSetImpl;

/// A set of sockets, each with a number of its owner's. Any thread may change it while one thread waits. A
/// socket leaves the set before it is closed.
class CPlatSocketSet {
public:
    /// What can be done at a socket without waiting; an error or an end shows as something to read, except: a
    /// Windows before version 2004 of 10 tells nothing of a connection attempt that has failed.
    struct Ready {
        std::uint64_t qwKey; ///< the owner's number
        bool bRead;
        bool bWrite; ///< only if that was asked for
    };

    CPlatSocketSet();
    ~CPlatSocketSet(); ///< nobody may be inside Wait; the sockets stay open
    CPlatSocketSet(CPlatSocketSet const &) = delete;
    CPlatSocketSet &operator=(CPlatSocketSet const &) = delete;

    /// Whether it came into being; WSAGetLastError of the constructing thread tells why not.
    bool IsGood() const;
    /// Waits for s to be readable from now on. False with WSAGetLastError.
    bool Add(SOCKET s, std::uint64_t qwKey);
    /// Waits for it to be writable, too, or no longer; with bRead false not for what comes.
    bool Change(SOCKET s, std::uint64_t qwKey, bool bRead, bool bWrite);
    void Remove(SOCKET s); ///< what the waiting thread has in hand already may still name it

    /// Waits dwMilliseconds (INFINITE: without a limit) for sockets that are ready and gives cMost of them at
    /// most. How many, 0 when the time was up or Wake was called.
    std::size_t Wait(Ready *pReady, std::size_t cMost, DWORD dwMilliseconds);
    /// Ends the Wait in progress, or the next one.
    void Wake();

private:
    std::unique_ptr<CPlatSocketSetImpl> m_pImpl;
};
