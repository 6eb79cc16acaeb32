/// @file
/// QOMANoAgC: notifications from a multifunction peripheral, for every language that can call C.
///
/// One agent for one device, by a handle. A client creates it, connects it, subscribes, and hears what happens
/// at that device, on a callback or by asking:
///
///     qoma_agent agent;
///     uint32_t instance;
///     if (qoma_create(NULL, NULL, &agent) == QOMA_OK) {
///         if (qoma_connect(agent, "192.168.1.20", QOMA_NO_PORT, QOMA_NETWORK) == QOMA_OK &&
///             qoma_add(agent, QOMA_FLAG_SELECT, "Paper Archive", &instance) == QOMA_OK) {
///             qoma_notification heard;
///             heard.size = sizeof heard;
///             while (qoma_poll(agent, QOMA_FOREVER, &heard) == QOMA_OK) {
///                 printf("kind %d: %s\n", (int)heard.kind, heard.option);
///             }
///         }
///         qoma_destroy(agent);
///     }
///
/// The language is C99, whose comments these are. Everything is of fixed width, so that it reads the same for
/// every compiler and in every other language; all texts are UTF-8 and end in a zero.
///
/// Handles. What is no open handle of this module (null, destroyed before, another's, anything) is answered with
/// QOMA_E_INVALID_HANDLE, by every function. The handle of an agent that is gone is told from later ones.
///
/// Threads. Any thread may call any function, several at once on one handle too. Add, delete, modify and discover
/// run one at a time on each agent, and so do connect, disconnect and restart.
///
/// The callback runs on a thread of the agent's own, one call at a time, in the order of the events. Inside a
/// callback, of whichever agent, qoma_connect, qoma_disconnect, qoma_restart and qoma_destroy return
/// QOMA_E_NOT_SUPPORTED, since they wait for callbacks, and so does a qoma_poll that would have to wait. The
/// other functions may be called, also for the callback's own agent: when that is being disconnected meanwhile,
/// they return QOMA_E_NOT_CONNECTED at once.
///
/// Recovery. When the link broke, the agent looks for the device again by itself, and QOMA_KIND_RECOVERED says
/// that it is back. All subscriptions are gone then and have to be made again.
///
/// Versions. QOMA_VERSION is that of this header, qoma_version tells the module's. What is here stays as it is:
/// functions, constants and fields are added, none goes or changes, so a client of an earlier version runs with
/// every later module of the same major number.

#ifndef QOMA_NOTIFY_H
#define QOMA_NOTIFY_H

#include <stdint.h>

// This header is handed out by itself, so it has to know its systems by itself. On Windows the functions are
// exported under these very names, and called as C does it whatever a client's own convention is.
#ifdef _WIN32
#define QOMA_CALL __cdecl ///< how the functions and the callback are called
#else
#define QOMA_CALL ///< how the functions and the callback are called
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// This header's version: major * 65536 + minor * 256 + patch.
#define QOMA_VERSION 0x010000

/// An agent; null is none.
typedef struct qoma_agent_opaque *qoma_agent;

/// 0, or what went wrong: one of the codes below, or another one of the device's access library.
typedef uint32_t qoma_result;

// Results. Each function names those of its own; every one but the first two functions below can also return
// QOMA_E_INVALID_HANDLE. What talks to the device passes on what the access library says.
#define QOMA_OK 0u                   ///< done
#define QOMA_E_REFUSED 5u            ///< the device does not allow this
#define QOMA_E_INVALID_HANDLE 6u     ///< no handle of an agent, or of one that is gone
#define QOMA_E_NO_MEMORY 8u          ///< an allocation failed
#define QOMA_E_BAD_ANSWER 13u        ///< the device's answer makes no sense
#define QOMA_E_WRONG_LENGTH 24u      ///< the text is too long for the device
#define QOMA_E_WRITE_FAULT 29u       ///< the discovery job could not be written whole
#define QOMA_E_DEVICE_FAILED 31u     ///< the device tried and failed
#define QOMA_E_NOT_SUPPORTED 50u     ///< not over a network, not inside a callback, or not with one
#define QOMA_E_NOT_SUBSCRIBED 51u    ///< delete of what is not subscribed
#define QOMA_E_INVALID_PARAMETER 87u ///< a null or empty argument, no known flag, a short record
#define QOMA_E_OPEN_FAILED 110u      ///< the target of the discovery job could not be opened
#define QOMA_E_TIMEOUT 121u          ///< the device gave no answer in time
#define QOMA_E_BUSY 170u             ///< another host has it
#define QOMA_E_NOTHING 258u          ///< qoma_poll: nothing came in time
#define QOMA_E_NO_SUCH_OBJECT 1168u  ///< the device knows no such entry
#define QOMA_E_BAD_ADDRESS 1214u     ///< no address, or a name that nobody knows
#define QOMA_E_CONNECT_REFUSED 1225u ///< nothing listens at that address and port
#define QOMA_E_NOT_STARTED 1229u     ///< the link was not started
#define QOMA_E_UNREACHABLE 1231u     ///< there is no way to the device
#define QOMA_E_LINK_LOST 1236u       ///< the link broke; the agent tries to get it back
#define QOMA_E_ALREADY_STARTED 1242u ///< the link was started before
#define QOMA_E_ALREADY_CONNECTED 1247u  ///< the agent is connected
#define QOMA_E_VERSION_MISMATCH 1306u   ///< the device speaks another version of the protocol
#define QOMA_E_WRONG_PRODUCT_LINE 1307u ///< the device was refused: it is of another product line
#define QOMA_E_INTERNAL 1359u           ///< a fault of the module's
#define QOMA_E_NO_RESOURCES 1450u       ///< too many agents, or the system gives no descriptor
#define QOMA_E_WRONG_TYPE 1629u         ///< the data type does not fit the object
#define QOMA_E_DEVICE_FULL 1816u        ///< the panel takes no more entries
#define QOMA_E_NOT_CONNECTED 2250u      ///< the agent has no link to a device

// What a notification is about.
#define QOMA_KIND_SELECT 0    ///< a user picked the client's entry on the device's panel
#define QOMA_KIND_FEEDER 1    ///< the document feeder changed; local links only
#define QOMA_KIND_BUTTON 2    ///< this host has a press of the scan button; local links only
#define QOMA_KIND_RECOVERED 3 ///< the link is back; all subscriptions have to be made again
#define QOMA_KIND_FAX 4       ///< a fax waits for upload

// What to subscribe to; may be combined.
#define QOMA_FLAG_SELECT 1u ///< an entry on the panel
#define QOMA_FLAG_FEEDER 2u ///< the document feeder; local links only
#define QOMA_FLAG_BUTTON 4u ///< the scan button; local links only
#define QOMA_FLAG_FAX 8u    ///< faxes

// The way to the device, for qoma_connect.
#define QOMA_LOCAL 0u   ///< a device at this machine
#define QOMA_NETWORK 1u ///< a device on an IPv4 network

/// The port to give to qoma_connect when there is none to give.
#define QOMA_NO_PORT 255u

/// The time-out of a qoma_poll that waits for as long as it takes.
#define QOMA_FOREVER 0xFFFFFFFFu

/// A notification. Later versions append fields, so the record begins with its size. It holds no pointers, and
/// has the same layout everywhere.
typedef struct qoma_notification {
    /// In bytes. Before qoma_poll the client says how much it has (sizeof), afterwards it reads how much of that
    /// the module knows; what is beyond is zero.
    uint32_t size;
    int32_t kind;         ///< a QOMA_KIND_ number; pass over those that are unknown
    uint32_t notify_code; ///< 7 with a selection, 8 with the feeder, 16 with the button, else 0
    int32_t value;        ///< with the feeder 1 for loaded and 0 for empty, else 0
    uint32_t word;        ///< with the button 2, else 0
    /// Only from qoma_poll: how many notifications were lost right before this one, as nobody had asked for them
    /// in time, and of which kinds, bit 1 << kind each. Whoever lost QOMA_KIND_RECOVERED has to subscribe again.
    uint32_t lost;
    uint32_t lost_kinds;     ///< see lost
    char option[352];        ///< with a selection the entry's text and what was added to it
    char sender_address[16]; ///< a selection's sender over a network, as a dotted IPv4 address
    char sender_name[260];   ///< the sender's host name, empty when it has none
} qoma_notification;

/// The client's callback. user is what qoma_create was given, whole. The record belongs to the agent and lives
/// for the one call. No exception may leave it.
typedef void(QOMA_CALL *qoma_callback)(void *user, const qoma_notification *notification);

/// The module's version, as QOMA_VERSION. Never fails; any time.
uint32_t QOMA_CALL qoma_version(void);

/// A result in words, without its number: never null, never to be freed, good for as long as the module is loaded.
/// Any time.
const char *QOMA_CALL qoma_strerror(qoma_result result);

/// Makes an agent without a link.
/// callback  what to call with each notification; null: they wait for qoma_poll, 1024 at most.
/// user      handed back to the callback; may be null, and is never looked at.
/// agent     receives the handle, null on failure. The client owns it and ends it with qoma_destroy.
/// Returns 0, QOMA_E_INVALID_PARAMETER, QOMA_E_NO_MEMORY, or QOMA_E_NO_RESOURCES beyond 4096 agents.
qoma_result QOMA_CALL qoma_create(qoma_callback callback, void *user, qoma_agent *agent);

/// Disconnects and ends the agent. The handle is no longer one from the beginning of the call on. A callback that
/// is running is waited for, and none follows; a qoma_poll that waits returns; a descriptor is closed. Not inside
/// a callback. Returns 0, or QOMA_E_NOT_SUPPORTED, and then the agent is as it was.
qoma_result QOMA_CALL qoma_destroy(qoma_agent agent);

/// Connects to a device; takes some seconds when that does not answer.
/// address  network: dotted IPv4 address or host name. Local: the text that this client wants to be known by at
///          the device, or null to leave the choice to it. Copied.
/// port     the device's TCP port, or QOMA_NO_PORT for the device link's usual one.
/// way      QOMA_NETWORK or QOMA_LOCAL.
/// Returns 0; QOMA_E_ALREADY_CONNECTED, nothing changed; QOMA_E_WRONG_PRODUCT_LINE or QOMA_E_NO_MEMORY, not
/// connected; QOMA_E_INVALID_PARAMETER for another way; QOMA_E_NOT_SUPPORTED inside a callback; or the library's
/// code: then the agent goes on trying by itself and counts as connected, qoma_disconnect ends that.
qoma_result QOMA_CALL qoma_connect(qoma_agent agent, const char *address, uint32_t port,
                                   uint32_t way);

/// Ends the link with all subscriptions. A callback that is running is waited for; what was to follow is dropped,
/// but what waits for qoma_poll stays. Not inside a callback. Returns 0; QOMA_E_NOT_CONNECTED or
/// QOMA_E_WRONG_PRODUCT_LINE when there is no link; QOMA_E_NOT_SUPPORTED.
qoma_result QOMA_CALL qoma_disconnect(qoma_agent agent);

/// Disconnects and connects again in the same way; QOMA_KIND_RECOVERED follows on success. The agent does so by
/// itself when a broken link can be had again. Not inside a callback. Returns as qoma_connect, and
/// QOMA_E_NOT_CONNECTED or QOMA_E_WRONG_PRODUCT_LINE when there is no link.
qoma_result QOMA_CALL qoma_restart(qoma_agent agent);

/// Subscribes to each notification in flags, in the order of their values, up to the first failure; what was
/// subscribed before that stays.
/// option    QOMA_FLAG_SELECT only, and then neither null nor empty: the text of the panel entry. Of the text that
///           comes back with a selection, which holds this one and about 50 bytes more, 349 bytes are taken.
/// instance  QOMA_FLAG_SELECT only, and then not null: receives the number that qoma_delete and qoma_modify need,
///           0 when the entry was not made.
/// Returns 0; QOMA_E_NOT_CONNECTED; QOMA_E_NOT_SUPPORTED, no such notification over a network;
/// QOMA_E_INVALID_PARAMETER; QOMA_E_NO_MEMORY; or the library's code.
qoma_result QOMA_CALL qoma_add(qoma_agent agent, uint32_t flags, const char *option,
                               uint32_t *instance);

/// Takes back one qoma_add of each notification in flags, in the same order. option and instance say which panel
/// entry: qoma_add's text, and the number that it gave. Returns as qoma_add, and QOMA_E_NOT_SUBSCRIBED.
qoma_result QOMA_CALL qoma_delete(qoma_agent agent, uint32_t flags, const char *option,
                                  uint32_t instance);

/// Replaces a panel entry: deletes *instance with old_option, then adds new_option, whose number goes to
/// *instance. When the second step fails, the old entry is gone all the same. Returns as qoma_add.
qoma_result QOMA_CALL qoma_modify(qoma_agent agent, const char *old_option, const char *new_option,
                                  uint32_t *instance);

/// Writes a discovery job with this client's address to target, a file, device or pipe that exists. *sequence
/// receives the job's number, 0 on failure: the client looks for "SRVQ=" with it in the notifications that answer.
/// Returns 0; QOMA_E_NOT_CONNECTED; QOMA_E_INVALID_PARAMETER; QOMA_E_OPEN_FAILED; QOMA_E_WRITE_FAULT; QOMA_E_NO_MEMORY.
qoma_result QOMA_CALL qoma_discover(qoma_agent agent, const char *target, uint32_t *sequence);

/// Takes the next notification of an agent without a callback. Each goes to one thread. When nobody asks, the
/// oldest of more than 1024 gives way, which the one behind it tells (lost).
/// timeout_ms    how long to wait for one, in milliseconds; 0 not at all, QOMA_FOREVER for as long as it takes.
/// notification  receives it; its size has to be set. On failure it stays as it is.
/// Returns 0; QOMA_E_NOTHING, none came in time; QOMA_E_NOT_CONNECTED or QOMA_E_WRONG_PRODUCT_LINE, none waits and
/// there is no link (also as soon as it is disconnected meanwhile); QOMA_E_INVALID_HANDLE, also when the agent is
/// destroyed meanwhile; QOMA_E_INVALID_PARAMETER, null or a size below the first version's 656;
/// QOMA_E_NOT_SUPPORTED, the agent has a callback, or this is one and it would have to wait.
qoma_result QOMA_CALL qoma_poll(qoma_agent agent, uint32_t timeout_ms,
                                qoma_notification *notification);

/// What an event loop can wait on instead, for an agent without a callback: on POSIX a descriptor that is readable
/// (poll, select, epoll) whenever qoma_poll would not have to wait, on Windows the handle of an event that is set
/// then (WaitForMultipleObjects). It is made with the first call and belongs to the agent, which closes it when it
/// is destroyed: it is only to be waited on. Before qoma_connect it is ready, as qoma_poll has an answer then.
/// descriptor  receives it, -1 on failure.
/// Returns 0; QOMA_E_INVALID_PARAMETER; QOMA_E_NOT_SUPPORTED, the agent has a callback; QOMA_E_NO_RESOURCES.
qoma_result QOMA_CALL qoma_descriptor(qoma_agent agent, intptr_t *descriptor);

#ifdef __cplusplus
}
#endif

#endif
