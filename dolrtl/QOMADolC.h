#pragma once
/// @file
/// QOMADolC: access to a multifunction peripheral in terms of numbered device objects and traps.
///
/// CDolRtl is one link to one device. The notification agent owns one for as long as it is
/// connected: it constructs it, calls Init once, reads and writes objects, registers traps, and
/// deletes it. This header declares exactly the operations that the agent calls, so that another
/// module of the same name and layout can take this one's place without a rebuild.
///
/// The implementation in this folder speaks the protocol of docs/device-link.md over TCP.
///
/// Threads. Every operation but the constructor and the destructor may be called by any number of
/// threads at once, from inside the callback too. Requests of several threads are answered in any
/// order. The callback runs on a thread of the module's, not always the same, one call at a time; it never
/// runs inside an operation, not before the constructor has returned, and not before Init was called. The
/// objects of a process share those threads, of which there are as many as callbacks need that block: one
/// waits for all links, a few call back. The first Init starts them, the last destructor ends them. A process
/// that was forked cannot use, and must not delete, its parent's objects; it may make its own.
///
/// Time. Every operation ends with a code within 5 seconds, whatever the device does: garbage, an
/// answer that comes late, or none. An answer that comes after its request was given up is dropped.
///
/// Losing the link. When the connection breaks, or Init could not reach the device at all, the
/// object goes on trying by itself: first after about 100 ms, then less and less often, every 2 s at
/// most. A link that comes about and breaks within 5 s is no success: the next object with the same
/// context goes on with the pauses where this one was. Once the device answers again, the callback
/// hears eDE_RESTART_LINK, once. From the break on this object's operations fail with eDR_LINK_LOST and
/// go on failing after that event: registrations and panel entries died with the old connection, so a
/// new object has to be made, with GetAddress and GetBridgePort as its address and port. Traps that had
/// arrived before the break can still be read.
#include "platform/base.h"
#include "platform/export.h"

#ifdef QOMADOLC_BUILD
#define QOMADOLC_API PLAT_EXPORT
#else
#define QOMADOLC_API
#endif

/// Events that the callback is called with.
enum DolRtlEventType : DWORD {
    eDE_TRAP_PENDING = 0, ///< traps wait: call ReadTrap until it says eDR_NO_MORE_TRAPS
    eDE_RESTART_LINK = 1, ///< the link broke and the device can be reached again
};

/// The kind of link, the third argument of Init.
enum DolRtlLinkType : DWORD {
    eLT_LOCAL = 3,   ///< a device at this machine
    eLT_NETWORK = 4, ///< a device on an IPv4 network
};

/// The device's TCP port when none is given.
constexpr DWORD kDolRtlDefaultPort = 19290;

/// Results of the operations. The numbers are the system's for errors of the same meaning.
enum DolRtlResult : DWORD {
    eDR_OK = 0,
    eDR_NO_MORE_TRAPS = 2,       ///< ReadTrap only: nothing waits
    eDR_REFUSED = 5,             ///< the device does not allow this for this object
    eDR_NO_MEMORY = 8,           ///< also: the object could not start its thread or socket
    eDR_BAD_ANSWER = 13,         ///< the device's answer makes no sense
    eDR_WRONG_LENGTH = 24,       ///< the value's length does not fit the object
    eDR_DEVICE_FAILED = 31,      ///< the device tried and failed
    eDR_INVALID_ARGUMENT = 87,   ///< a null or empty argument, or a value longer than 32 KiB
    eDR_TIMEOUT = 121,           ///< no answer in time; the device may still carry the request out
    eDR_BUSY = 170,              ///< SCAN_TOKEN: another host holds it, or has had this press
    eDR_NO_SUCH_OBJECT = 1168,   ///< unknown object, panel entry, or registration
    eDR_BAD_ADDRESS = 1214,      ///< empty over a network, not resolvable, or a port above 65535
    eDR_CONNECT_REFUSED = 1225,  ///< nothing listens there
    eDR_NOT_STARTED = 1229,      ///< Init has not been called
    eDR_UNREACHABLE = 1231,      ///< no way to the device
    eDR_LINK_LOST = 1236,        ///< the connection broke, or never came about
    eDR_ALREADY_STARTED = 1242,  ///< Init has been called before
    eDR_VERSION_MISMATCH = 1306, ///< the device speaks another version of the protocol
    eDR_WRONG_TYPE = 1629,       ///< the data type does not fit the object
    eDR_DEVICE_FULL = 1816,      ///< the panel takes no more entries
};

/// The user's callback. event is a DolRtlEventType; dwContext is what the constructor was given. The
/// result is disregarded. It must not let an exception out. It may take its time: events that come
/// meanwhile are joined and follow when it has returned. It may call every operation of the object,
/// and may delete it.
typedef DWORD (*DolRtlCallbackFn)(DWORD event, DWORD_PTR dwContext);

class CDolRtlImpl;

/// The access to one device.
class QOMADOLC_API CDolRtl {
public:
    /// Keeps both; pfnCallback may be null, then no event is raised. Starts nothing, does not fail.
    CDolRtl(DolRtlCallbackFn pfnCallback, DWORD_PTR dwContext);

    /// Ends the link, and with it every registration: unless the device takes more than half a second
    /// for it, it has forgotten this client when the destructor returns. Waits for a callback that is running and makes
    /// sure that none follows, except on the thread that is inside the callback: there it does not
    /// wait, and that thread ends by itself once the callback has returned. No other thread may be
    /// inside an operation of the object.
    ~CDolRtl();

    CDolRtl(CDolRtl const &) = delete;
    CDolRtl &operator=(CDolRtl const &) = delete;

    /// Connects to the device; once per object.
    /// pszAddress   eLT_NETWORK: dotted IPv4 address or host name; null or empty fails.
    ///              eLT_LOCAL: the address text that this client wants to be known by, such as an
    ///              earlier object's GetAddress; null or empty leaves the choice to the device. A
    ///              text that another client holds or that is malformed gives way to one of the
    ///              device's choice.
    /// dwPort       the device's TCP port, host order; 0 and 255 both mean kDolRtlDefaultPort.
    /// dwTransport  a DolRtlLinkType; anything else is eDR_INVALID_ARGUMENT.
    /// Whatever it returns but eDR_INVALID_ARGUMENT, eDR_BAD_ADDRESS of a null, empty or overlong
    /// text or a port above 65535, eDR_ALREADY_STARTED and eDR_NO_MEMORY, the object goes on trying
    /// and raises eDE_RESTART_LINK when the device can be reached.
    DWORD Init(char const *pszAddress, DWORD dwPort, DWORD dwTransport);

    /// Writes the device's identification text, cut to cbBuffer - 1 bytes and NUL-terminated, and
    /// its length without the NUL. *pcbOut is 0 on failure.
    DWORD GetDeviceId(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut);

    /// Asks the device to read the object; the value is not handed out.
    DWORD Get(unsigned char *pOid, DWORD cbOid, unsigned char dataType);

    /// Writes the object. dataType decides how pValue is read: 1 a 4-byte word in host order, 8 the
    /// same, 4 text of cbValue bytes without a NUL, 5 as many bytes as they are.
    DWORD Set(unsigned char *pOid, DWORD cbOid, unsigned char dataType, void *pValue,
              DWORD cbValue);

    /// Registers for changes of the object. Each later change is reported by eDE_TRAP_PENDING and
    /// read with ReadTrap under wTrapId. Registering an object again replaces its trap id.
    DWORD Trap(unsigned char *pOid, DWORD cbOid, unsigned char dataType, unsigned short wTrapId);

    /// Ends the registration; eDR_NO_SUCH_OBJECT if there was none.
    DWORD UnTrap(unsigned char *pOid, DWORD cbOid);

    /// Hands out the oldest waiting trap, without a request to the device: eDR_OK with the value in
    /// pBuffer, cut to cbBuffer bytes, without a NUL of its own; *pcbOut gets the number of bytes
    /// written, 349 at most, which is the longest value of an object; what a device sends beyond is not
    /// kept. Words come in host order. With nothing waiting, eDR_NO_MORE_TRAPS and the
    /// out-values untouched, also after the link was lost. 1024 traps wait at most; after that the
    /// oldest gives way. Several threads may drain at once, each trap goes to one of them.
    DWORD ReadTrap(unsigned char *pBuffer, DWORD cbBuffer, DWORD *pcbOut, unsigned char *pDataType,
                   unsigned short *pwTrapId);

    /// Over a network the text that Init was given; over a local link the text that the device knows
    /// this client by, which no other client of the device has (empty before the device has given
    /// one). Never null. The pointer stays valid, and the text unchanged, while the object lives.
    char const *GetAddress();

    /// The port to give to Init when the link is restarted: the one given before, 0 included.
    DWORD GetBridgePort();

private:
    CDolRtlImpl *m_pImpl;
};
