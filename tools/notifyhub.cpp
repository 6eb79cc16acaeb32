// notifyhub: the devices of an office, heard by one service, whose events are kept and handed on to whatever the office
// uses.
//
// The standard output carries events alone, everything else goes to the standard error. Exit codes are those of
// sysexits.
#include "devlink/link_stream.h"
#include "tools/notifyhub_events.h"
#include "tools/notifyhub_output.h"
#include "tools/notifyhub_run.h"
#include "tools/usage.h"

#include <charconv>
#include <cstdio>

namespace {

struct Options {
    std::string strSettings;
    std::string strWeb;
    std::string strCheck; // of "check"
    EventsOptions events;
    std::string strSince;
    std::string strSink; // of "replay"
};

// As CLI11 refuses a single option.
std::string SinceProblem(std::string const &strSince)
{
    return TimeOfText(strSince) ? ""
                                : "\"" + strSince +
                                      "\" is no time such as 90s, 10m, 2h or 3d ago, 2026-11-23 or "
                                      "2026-11-23T14:05:00Z";
}

// "PORT" or "a.b.c.d:PORT"; nothing if it is neither.
std::optional<HubListenSettings> ListenOf(std::string const &strWeb)
{
    HubListenSettings listen;
    std::size_t const nColon = strWeb.rfind(':');
    std::string const strPort = nColon == std::string::npos ? strWeb : strWeb.substr(nColon + 1);
    if (nColon != std::string::npos) {
        listen.strAddress = strWeb.substr(0, nColon);
    }
    auto const [p, error] =
        std::from_chars(strPort.data(), strPort.data() + strPort.size(), listen.wPort);
    DWORD dwHost = 0;
    bool const bGood = error == std::errc() && p == strPort.data() + strPort.size() &&
                       ParseDottedAddress(listen.strAddress, &dwHost);
    return bGood ? std::optional(listen) : std::nullopt;
}

CLI::App *AddEvents(CLI::App &app, Options &options)
{
    CLI::App *const pEvents = app.add_subcommand("events", "Show what the journal holds");
    pEvents
        ->add_option("--since", options.strSince,
                     "From this time on: 90s, 10m, 2h or 3d ago, 2026-11-23, 2026-11-23T14:05:00Z")
        ->option_text("TIME")
        ->check(SinceProblem);
    pEvents->add_option("--device", options.events.strDevice, "Of this device alone")
        ->option_text("NAME");
    pEvents
        ->add_option("--type", options.events.strType,
                     "Of this type alone, such as panel.picked or link.*")
        ->option_text("TYPE");
    pEvents->add_flag("--follow", options.events.bFollow, "Go on with what comes, until Ctrl-C");
    pEvents->add_flag("--json", options.events.bJson, "The envelopes, one a line");
    return pEvents;
}

CLI::App *AddReplay(CLI::App &app, Options &options)
{
    CLI::App *const pReplay =
        app.add_subcommand("replay", "Have a sink get events once more, while the hub runs or not");
    pReplay->add_option("sink", options.strSink, "The sink's name")
        ->option_text("SINK")
        ->required();
    pReplay->add_option("--since", options.strSince, "From this time on, as for events")
        ->option_text("TIME")
        ->required()
        ->check(SinceProblem);
    return pReplay;
}

// The settings of the run; nothing after a line that says what is wrong with them.
std::optional<HubSettings> SettingsOf(std::string const &strFile)
{
    if (strFile.empty()) {
        return DefaultHubSettings();
    }
    std::string strError;
    auto settings = ReadHubSettings(strFile, &strError);
    if (!settings) {
        PrintHubLog(eHL_ERROR, strError);
    }
    return settings;
}

int Check(std::string const &strFile)
{
    auto const settings = SettingsOf(strFile);
    if (!settings) {
        return eHX_SETTINGS;
    }
    std::printf("%s: %zu devices, %zu sinks, %zu rules, journal %s\n", strFile.c_str(),
                settings->devices.size(), settings->sinks.size(), settings->rules.size(),
                settings->journal.strFile.c_str());
    return std::fflush(stdout) == 0 ? eHX_DONE : eHX_OUTPUT;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{
        "Hears the devices of an office, keeps their events in a journal, and hands them on "
        "to programs, web services, a message broker and the desktop.",
        "notifyhub"};
    Options options;
    app.add_option("--settings", options.strSettings,
                   "The settings (see docs/hub.md). Without them notifyhub hears the device at "
                   "this machine and prints")
        ->option_text("FILE");
    app.add_option(
           "--web", options.strWeb,
           "Show devices, sinks and events in a browser at [ADDRESS:]PORT, 0 for any port; at "
           "127.0.0.1 unless told otherwise")
        ->option_text("[ADDRESS:]PORT")
        ->check([](std::string const &strWeb) {
            return ListenOf(strWeb) ? "" : "\"" + strWeb + "\" is neither PORT nor a.b.c.d:PORT";
        });
    app.footer("SIGHUP has the settings read again. Ends on Ctrl-C or SIGTERM.\n"
               "Exit code, by sysexits: 0 done, 64 bad usage, 65 there is no such sink, 70 out of "
               "memory, 73 no journal to be had, 74 nobody takes the output, 78 the settings are "
               "refused.");
    app.add_subcommand("run", "Run the hub, as without a command");
    CLI::App *const pCheck = app.add_subcommand("check", "Tell what is wrong with settings");
    pCheck->add_option("file", options.strCheck, "The settings")->option_text("FILE")->required();
    CLI::App const *const pEvents = AddEvents(app, options);
    CLI::App const *const pReplay = AddReplay(app, options);
    app.require_subcommand(0, 1);
    if (auto const nExitCode = ParseCommandLine(app, argc, argv)) {
        return *nExitCode == eXC_USAGE ? eHX_USAGE : *nExitCode;
    }
    try {
        if (*pCheck) {
            return Check(options.strCheck);
        }
        auto const settings = SettingsOf(options.strSettings);
        if (!settings) {
            return eHX_SETTINGS;
        }
        if (*pEvents) {
            options.events.since = TimeOfText(options.strSince);
            return ShowEvents(*settings, options.events);
        }
        if (*pReplay) {
            return ReplayEvents(*settings, options.strSink, *TimeOfText(options.strSince));
        }
        return RunHub(*settings, options.strSettings, ListenOf(options.strWeb));
    } catch (std::exception const &error) {
        PrintHubLog(eHL_ERROR, error.what());
        return eHX_SOFTWARE;
    }
}
