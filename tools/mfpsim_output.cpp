#include "tools/mfpsim_output.h"

#include "tools/showable.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::system_clock;

unsigned Milliseconds(Clock::time_point now)
{
    auto const since =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
    return static_cast<unsigned>(since.count() % 1000);
}

// The moment by strftime's pattern, of local time or UTC, with milliseconds. Under a lock: the runtime's
// record is one for all threads.
std::string Moment(char const *pszPattern, bool fUtc)
{
    Clock::time_point const now = Clock::now();
    std::time_t const seconds = Clock::to_time_t(now);
    char szTime[40];
    std::size_t const cch = std::strftime(szTime, sizeof szTime, pszPattern,
                                          fUtc ? std::gmtime(&seconds) : std::localtime(&seconds));
    std::snprintf(szTime + cch, sizeof szTime - cch, ".%03u", Milliseconds(now));
    return szTime;
}

Json EventJson(char const *pszKind)
{
    return {{"time", Moment("%Y-%m-%dT%H:%M:%S", true) + "Z"}, {"event", pszKind}};
}

// Without a byte that is not ASCII, so that no terminal can be led astray.
std::string Dump(Json const &json)
{
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

} // namespace

void CSimOutput::Print(std::string const &strLine)
{
    m_editor.Print(strLine);
}

void CSimOutput::Event(DeviceEvent const &event, std::size_t nDevice)
{
    CPlatGuard const lock(m_mx);
    if (!m_fJson) {
        Print((m_fStamps ? Moment("%H:%M:%S", false) + " " : "") +
              (nDevice == 0 ? "" : std::to_string(nDevice) + ": ") +
              Showable(DeviceEventLine(event)));
        return;
    }
    Json json = EventJson(DeviceEventName(event.eKind));
    if (nDevice != 0) {
        json["device"] = nDevice;
    }
    for (DeviceEventField const &field : event.fields) {
        std::visit([&](auto const &value) { json[field.pszName] = value; }, field.value);
    }
    Print(Dump(json));
}

void CSimOutput::PrintText(char const *pszKind, std::string const &strText)
{
    CPlatGuard const lock(m_mx);
    if (!m_fJson) {
        Print(Showable(strText));
        return;
    }
    Json json = EventJson(pszKind);
    json["text"] = strText;
    Print(Dump(json));
}

void CSimOutput::Tell(std::string const &strText)
{
    PrintText("panel", strText);
}

void CSimOutput::Answer(CommandResult const &result)
{
    for (std::string const &strLine : result.lines) {
        PrintText("answer", strLine);
    }
    if (!result.fDone) {
        PrintText("error", m_fJson ? result.strError : "error: " + result.strError);
    }
}
