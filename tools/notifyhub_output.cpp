#include "tools/notifyhub_output.h"

#include "session/event_text.h"
#include "tools/showable.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

void PrintHubLog(HubLogLevel eLevel, std::string const &strLine)
{
    static bool const s_bJournal = std::getenv("JOURNAL_STREAM") != nullptr;
    std::string const strBefore =
        s_bJournal ? "<" + std::to_string(static_cast<int>(eLevel)) + ">" : "notifyhub: ";
    std::fputs((strBefore + Showable(strLine) + "\n").c_str(), stderr);
}

std::string HubEventLine(HubEvent const &event)
{
    std::string strLine = TimeText(event.tpTime) + " " +
                          (event.strDevice.empty() ? "-" : event.strDevice) + " " +
                          std::string(ShortHubType(event));
    return Showable(strLine + (event.strText.empty() ? "" : " \"" + event.strText + "\""));
}

std::string HubStatusLine(HubStatus const &status)
{
    auto const cUp = std::count_if(status.devices.begin(), status.devices.end(),
                                   [](auto const &device) { return device.state.bAvailable; });
    std::uint64_t cWaiting = status.journal.cWaiting;
    std::uint64_t cMost = 0; // the sink with most
    for (HubSinkStatus const &sink : status.sinks) {
        cMost = std::max(cMost, sink.cWaiting);
    }
    cWaiting += cMost;
    return (status.bActive ? "" : "Standby, ") + std::to_string(cUp) + " of " +
           std::to_string(status.devices.size()) + " devices connected, " +
           std::to_string(status.sinks.size()) + " sinks, " + std::to_string(cWaiting) +
           " events wait";
}

bool PrintLine(std::string const &strLine)
{
    return std::puts(strLine.c_str()) != EOF && std::fflush(stdout) != EOF;
}

HubOutcomeType CPrintSink::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    if (PrintLine(m_bJson ? event.strJson : HubEventLine(event))) {
        return eHO_TAKEN;
    }
    *pstrWhy = "nobody reads the standard output";
    std::clearerr(stdout);
    return eHO_LATER;
}
