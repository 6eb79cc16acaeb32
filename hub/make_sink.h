#pragma once
/// @file
/// Sinks by their settings.
#include "hub/hub_log.h"
#include "hub/settings.h"
#include "hub/sink.h"

#include <functional>
#include <memory>

/// What a sink may do with the hub that has it. Both functions may be called by any thread until the sink's destructor
/// has returned, and never wait for the sink.
struct HubSinkHost {
    HubLogFn log;
    /// Of a standby: from now on this hub hears the devices, or no longer does. It does not before it is told to.
    std::function<void(bool bOurs)> onTurn;
};

/// Makes a sink. Never null; whether whoever it is for can be reached shows when it delivers. Throws std::exception
/// with one line when its library cannot be had.
using MakeHubSinkFn = std::function<std::unique_ptr<CHubSink>(HubSinkSettings const &settings,
                                                              HubSinkHost const &host)>;

/// The sinks of this room: all but "print", which is the program's.
std::unique_ptr<CHubSink> MakeHubSink(HubSinkSettings const &settings, HubSinkHost const &host);

/// "print", "exec", "webhook", "mqtt" or "desktop".
char const *HubSinkKind(HubSinkSettings const &settings);
