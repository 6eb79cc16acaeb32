#include "hub/make_sink.h"

#include "hub/exec_sink.h"

#include <array>
#include <stdexcept>

std::unique_ptr<CHubSink> MakeHubSink(HubSinkSettings const &settings, HubLogFn const &)
{
    if (auto const *const pExec = std::get_if<HubExecSettings>(&settings.kind)) {
        return std::make_unique<CExecSink>(*pExec);
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
