#pragma once
/// @file
/// What notifyhub does with a journal beside the hub that writes it.
#include "hub/settings.h"

#include <chrono>
#include <optional>
#include <string>

/// What `notifyhub events` shows.
struct EventsOptions {
    std::optional<std::chrono::system_clock::time_point> since;
    std::string strDevice;
    std::string strType;
    bool bFollow = false;
    bool bJson = false;
};

/// A time that a person writes: "90s", "10m", "2h" or "3d" for so long ago, "2026-11-23", or "2026-11-23T14:05:00"
/// with "Z" behind it or without, in UTC either way. Nothing if it is none.
std::optional<std::chrono::system_clock::time_point> TimeOfText(std::string const &strText);

/// Prints them, until asked to end if they are to be followed. The exit code.
int ShowEvents(HubSettings const &settings, EventsOptions const &options);

/// Has the sink get the events since then once more. The exit code.
int ReplayEvents(HubSettings const &settings, std::string const &strSink,
                 std::chrono::system_clock::time_point tpSince);
