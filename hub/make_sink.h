#pragma once
/// @file
/// Sinks by their settings.
#include "hub/hub_log.h"
#include "hub/settings.h"
#include "hub/sink.h"

#include <functional>
#include <memory>

/// Whether this hub is to hear its devices from now on. Called by a sink's thread, must not wait. Only a sink whose
/// settings say "standby" calls it: a hub with one begins without hearing.
using HubHearFn = std::function<void(bool)>;

/// Makes a sink. Never null; whether whoever it is for can be reached shows when it delivers. Throws std::exception
/// with one line when its library cannot be had.
using MakeHubSinkFn = std::function<std::unique_ptr<CHubSink>(
    HubSinkSettings const &settings, HubLogFn const &log, HubHearFn const &hear)>;

/// The sinks of this room: all but "print", which is the program's.
std::unique_ptr<CHubSink> MakeHubSink(HubSinkSettings const &settings, HubLogFn const &log,
                                      HubHearFn const &hear);

/// "print", "exec", "webhook", "mqtt" or "desktop".
char const *HubSinkKind(HubSinkSettings const &settings);
