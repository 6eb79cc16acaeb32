#pragma once
/// @file
/// What notifyhub prints: events, its log, and how it stands.
#include "hub/hub_event.h"
#include "hub/hub_log.h"
#include "hub/hub_status.h"
#include "hub/settings.h"
#include "hub/sink.h"

#include <string>

/// The exit codes of sysexits, which service managers know.
enum HubExitCode {
    eHX_DONE = 0,
    eHX_USAGE = 64,       ///< of the command line
    eHX_DATA = 65,        ///< what was asked for is not there
    eHX_SOFTWARE = 70,    ///< a mistake of ours, or no memory
    eHX_CANNOT_KEEP = 73, ///< there is no journal to be had
    eHX_OUTPUT = 74,      ///< nobody takes what is printed
    eHX_SETTINGS = 78,    ///< the settings are refused
};

/// A line of the log on the standard error. With the system's journal behind that, its priority stands in front as the
/// journal reads it, else the program's name. Any thread.
void PrintHubLog(HubLogLevel eLevel, std::string const &strLine);

/// A line for people: when, where, what and which entry, of showable characters alone.
std::string HubEventLine(HubEvent const &event);

/// "2 of 3 devices connected, 2 sinks, 5 events wait"
std::string HubStatusLine(HubStatus const &status);

/// A line on the standard output, at once. False when nobody takes it.
bool PrintLine(std::string const &strLine);

/// Events on the standard output.
class CPrintSink : public CHubSink {
public:
    explicit CPrintSink(HubPrintSettings const &settings) : m_bJson(settings.bJson) {}

    HubOutcomeType Deliver(HubEvent const &event, std::string *pstrWhy) override;
    void Stop() override {}

private:
    bool const m_bJson;
};
