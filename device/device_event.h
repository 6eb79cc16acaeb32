#pragma once
/// @file
/// What happens at a device, as one record each: a log prints it as a line or as JSON, a page shows it.

#include "devlink/link_frame.h"
#include "platform/base.h"

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

/// Kinds of events. The table in device_event.cpp has a row for each, in this order.
enum DeviceEventKind {
    eEV_LISTENING,
    eEV_LINK_UP,
    eEV_LINK_DOWN,
    eEV_LINK_REFUSED,
    eEV_ENTRY_ADDED,
    eEV_ENTRY_DELETED,
    eEV_ENTRY_GONE,
    eEV_TRAP_ON,
    eEV_TRAP_OFF,
    eEV_TRAP_SENT,
    eEV_SET_REFUSED,
    eEV_PRESS_CLAIMED,
    eEV_CLAIM_REFUSED,
    eEV_TOKEN_FREED,
    eEV_PICKED,
    eEV_FEEDER,
    eEV_BUTTON,
    eEV_FAX,
    eEV_NOT_SENT,
    eEV_KICK_SENT,
    eEV_KICK_ECHOED,
    eEV_KICK_GIVEN_UP,
    eEV_KICK_DROPPED,
    eEV_KICK_REPEATED,
    eEV_KICK_HELD_BACK,
    eEV_KICK_ECHO_LOST,
    eEV_JOB_TAKEN,
    eEV_JOB_REFUSED,
    eEV_JOB_NOT_ANSWERED,
    eEV_PRINT_PATH,
    eEV_CUT,
    eEV_GARBAGE,
    eEV_PANEL,
    eEV_HABIT,
    eEV_COUNT
};

/// A named value of an event. Texts are as they came, those of clients included: whoever shows one to a
/// terminal or a page makes it fit for that first.
struct DeviceEventField {
    char const *pszName;                            ///< such as "link", "text", "address"
    std::variant<std::uint64_t, std::string> value; ///< a number, or a text in the client's bytes
};

/// One thing that has happened.
struct DeviceEvent {
    DeviceEventKind eKind; ///< which decides the fields
    /// Those that the kind's row names, in its order, and behind them what else is known. What belongs to one
    /// pick of an entry has its number in "pick", what belongs to one press of the button in "press".
    std::vector<DeviceEventField> fields;
};

/// What a device does with an answer of its own.
enum DeviceFrameFate {
    eFF_SENT,
    eFF_LATE,    ///< later than it could
    eFF_MUTE,    ///< not at all
    eFF_GARBLED, ///< without sense
};

/// One frame of a link, on its way.
struct DeviceFrame {
    DWORD dwLink = 0;         ///< the link's number
    bool fFromClient = false; ///< else it goes to the client
    LinkFrame const &frame; ///< for the time of the call; what was meant, where the fate is another
    DeviceFrameFate eFate = eFF_SENT; ///< of the device's own frames
    DWORD dwLateMs = 0;               ///< so much later it goes
};

/// One datagram, on its way.
struct DeviceDatagram {
    bool fFromClient = false;    ///< else it goes to the client
    std::string const &strPeer;  ///< "a.b.c.d:port", for the time of the call
    std::string const &strBytes; ///< for the time of the call
};

/// The kind's name, such as "link-up": the same for all time, for programs to compare.
char const *DeviceEventName(DeviceEventKind eKind);

/// The event as the words of a log line, such as "link 3 up: local LINK1", without a line end of its own.
std::string DeviceEventLine(DeviceEvent const &event);
