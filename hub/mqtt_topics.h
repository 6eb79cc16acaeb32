#pragma once
/// @file
/// Where things are at a broker, and what is announced there:
///
///     BASE/SITE/availability          online, offline: whether a hub hears the site's devices; retained
///     BASE/SITE/active                which hub that is, by its name; retained
///     BASE/SITE/DEVICE/availability   online, offline: whether the device's link stands; retained
///     BASE/SITE/DEVICE/state          {"state": …, "address": …, "model": …}; retained
///     BASE/SITE/DEVICE/TYPE           an event, such as panel.picked; never retained
///
/// A type has a dot in it, so that no event takes one of the names above. The site's availability is the will of
/// the hub that hears; what it says stands above what is said of each device.
#include "hub/settings.h"
#include "hub/sink.h"

#include <string>
#include <string_view>

/// Text as one level of a topic: what is a sign of its own there ("/", "+", "#"), "%" and control characters are
/// written as "%" and two hexadecimal digits. An empty text is "%".
std::string MqttLevel(std::string_view strText);

/// The topics of one site.
class CMqttTopics {
public:
    explicit CMqttTopics(HubMqttSettings const &settings);

    std::string const &Availability() const { return m_strAvailability; } ///< of the site
    std::string const &Active() const { return m_strActive; }             ///< which hub hears it
    /// Of a device: strWhat is "availability", "state", or an event's type without the prefix.
    std::string Of(std::string_view strDevice, std::string_view strWhat) const;

    /// Where Home Assistant looks for a device.
    std::string HomeTopic(std::string_view strDevice) const;
    /// What it finds there: a device with an event for each type and a sensor for the link, JSON.
    std::string HomePayload(HubDeviceState const &state) const;

private:
    HubMqttSettings const m_settings;
    std::string const m_strRoot; // with a "/" at its end
    std::string const m_strAvailability;
    std::string const m_strActive;
};
