#include "hub/make_sink.h"

#include "hub/desktop_sink.h"
#include "hub/exec_sink.h"
#include "hub/mqtt_sink.h"
#include "hub/webhook_sink.h"

#include <array>
#include <stdexcept>

std::unique_ptr<CHubSink> MakeHubSink(HubSinkSettings const &settings, HubSinkHost const &host)
{
    if (auto const *const pExec = std::get_if<HubExecSettings>(&settings.kind)) {
        return std::make_unique<CExecSink>(*pExec);
    }
    if (auto const *const pWebhook = std::get_if<HubWebhookSettings>(&settings.kind)) {
        return std::make_unique<CWebhookSink>(*pWebhook);
    }
    if (auto const *const pMqtt = std::get_if<HubMqttSettings>(&settings.kind)) {
        return std::make_unique<CMqttSink>(*pMqtt, host);
    }
    if (auto const *const pDesktop = std::get_if<HubDesktopSettings>(&settings.kind)) {
        return std::make_unique<CDesktopSink>(*pDesktop);
    }
    throw std::runtime_error("this hub has no sinks of the type " +
                             std::string(HubSinkKind(settings)));
}

char const *HubSinkKind(HubSinkSettings const &settings)
{
    constexpr std::array kNames{"print", "exec", "webhook", "mqtt", "desktop"};
    static_assert(kNames.size() == std::variant_size_v<decltype(settings.kind)>);
    return kNames[settings.kind.index()];
}
