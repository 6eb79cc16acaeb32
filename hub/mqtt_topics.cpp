#include "hub/mqtt_topics.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <utility>

using nlohmann::json;

namespace {

// What a device's entity for events of a type is called.
constexpr std::pair<char const *, char const *> kHomeEvents[] = {
    {"panel.picked", "Panel"},
    {"button.pressed", "Scan button"},
    {"feeder.changed", "Feeder"},
    {"fax.waiting", "Fax"},
};

void AppendHex(std::string *pstr, char chEscape, unsigned char ch)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    *pstr += {chEscape, kDigits[ch >> 4], kDigits[ch & 15]};
}

// Text as Home Assistant wants a name in a topic to be: letters, digits, "-" and "_". Two names stay two.
std::string HomeName(std::string_view strText)
{
    std::string str;
    for (unsigned char const ch : strText) {
        if (ch < 128 && (std::isalnum(ch) || ch == '-')) {
            str += static_cast<char>(ch);
        } else {
            AppendHex(&str, '_', ch);
        }
    }
    return str;
}

std::string Text(json const &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace

std::string MqttLevel(std::string_view strText)
{
    std::string str;
    for (unsigned char const ch : strText) {
        if (ch < ' ' || ch == 127 ||
            std::string_view("/+#%").find(static_cast<char>(ch)) != std::string_view::npos) {
            AppendHex(&str, '%', ch);
        } else {
            str += static_cast<char>(ch);
        }
    }
    return str.empty() ? "%" : str;
}

CMqttTopics::CMqttTopics(HubMqttSettings const &settings)
    : m_settings(settings), m_strRoot(settings.strBase + "/" + MqttLevel(settings.strSite) + "/"),
      m_strAvailability(m_strRoot + "availability"), m_strActive(m_strRoot + "active")
{
}

std::string CMqttTopics::Of(std::string_view strDevice, std::string_view strWhat) const
{
    return m_strRoot + MqttLevel(strDevice) + "/" + MqttLevel(strWhat);
}

std::string CMqttTopics::HomeTopic(std::string_view strDevice) const
{
    return m_settings.strHomeAssistantBase + "/device/" + HomeName(m_settings.strBase) + "-" +
           HomeName(m_settings.strSite) + "-" + HomeName(strDevice) + "/config";
}

std::string CMqttTopics::HomePayload(HubDeviceState const &state) const
{
    std::string const strId = HomeName(m_settings.strBase) + "-" + HomeName(m_settings.strSite) +
                              "-" + HomeName(state.strDevice);
    std::string const strLink = Of(state.strDevice, "availability");
    json components;
    for (auto const &[pszType, pszName] : kHomeEvents) {
        std::string const strType = pszType;
        components[HomeName(strType)] = {
            {"platform", "event"},
            {"unique_id", strId + "-" + HomeName(strType)},
            {"name", pszName},
            {"event_types", {strType}},
            {"state_topic", Of(state.strDevice, strType)},
            {"value_template",
             "{{ dict(value_json.data, event_type='" + strType + "') | tojson }}"},
            {"availability", {{{"topic", m_strAvailability}}, {{"topic", strLink}}}},
            {"availability_mode", "all"}};
    }
    components["link"] = {{"platform", "binary_sensor"},
                          {"unique_id", strId + "-link"},
                          {"name", "Link"},
                          {"device_class", "connectivity"},
                          {"entity_category", "diagnostic"},
                          {"state_topic", strLink},
                          {"payload_on", "online"},
                          {"payload_off", "offline"},
                          {"availability_topic", m_strAvailability}};
    json device{{"identifiers", {strId}}, {"name", state.strDevice}};
    if (!state.strModel.empty()) {
        device["model"] = state.strModel;
    }
    return Text({{"device", std::move(device)},
                 {"origin", {{"name", "notifyhub"}}},
                 {"components", std::move(components)},
                 {"qos", 1}});
}
