#pragma once
/// @file
/// Sinks by their settings.
#include "hub/hub_log.h"
#include "hub/settings.h"
#include "hub/sink.h"

#include <functional>
#include <memory>

/// Makes a sink. Never null; whether whoever it is for can be reached shows when it delivers. Throws std::exception
/// with one line when its library cannot be had.
using MakeHubSinkFn =
    std::function<std::unique_ptr<CHubSink>(HubSinkSettings const &settings, HubLogFn const &log)>;

/// The sinks of this room: all but "print", which is the program's.
std::unique_ptr<CHubSink> MakeHubSink(HubSinkSettings const &settings, HubLogFn const &log);

/// "print", "exec", "webhook", "mqtt" or "desktop".
char const *HubSinkKind(HubSinkSettings const &settings);
