#pragma once
/// @file
/// HubEvent: what happened at a device, in the envelope in which journal, sinks and pages see it: CloudEvents
/// 1.0, structured JSON (docs/event.schema.json).
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

/// What every type of ours begins with.
inline constexpr std::string_view kHubTypePrefix = "local.qoma.";

/// One event. Its envelope is made once, before it is journalled, and never again: each retry and each sink hands
/// on the same bytes.
struct HubEvent {
    std::uint64_t dwPlace = 0; ///< its place in the journal, from 1 upwards; 0 before it has one
    std::string strId;         ///< unique, and sorted as text it is sorted by time
    std::string strType;       ///< the envelope's "type", with the prefix of all of ours
    std::string strDevice;     ///< the device's name in the settings, as in "subject"
    std::string strText;       ///< the panel entry's text, or empty; what rules look at
    std::chrono::system_clock::time_point
        tpTime;          ///< when the agent learnt of it; "time" to the millisecond
    std::string strJson; ///< the whole envelope, UTF-8, one line without a line end
};

/// A type without the prefix: "panel.picked", which is what rules, topics and people name.
inline std::string_view ShortHubType(HubEvent const &event)
{
    std::string_view const strType = event.strType;
    return strType.starts_with(kHubTypePrefix) ? strType.substr(kHubTypePrefix.size()) : strType;
}
