#include "tools/notifymon_options.h"

#include "dolrtl/QOMADolC.h"
#include "session/subscriptions.h"
#include "tools/notifymon_output.h"
#include "tools/tape_mask.h"
#include "tools/usage.h"

#include <algorithm>
#include <cstring>

namespace {

// As they are given, before it is known what they mean together.
struct GivenOptions {
    std::vector<std::string> addresses;
    DWORD dwPort = kNotifyNoPort;
    bool bLocal = false;
    std::vector<std::string> rgstrOption;
    std::vector<std::string> rgstrOn;
};

void DescribeDevices(CLI::App &app, GivenOptions &given, Options &options)
{
    std::string const strPort = std::to_string(kDolRtlDefaultPort);
    app.add_option(
           "--address", given.addresses,
           "The device's address or host name, with or without a port (default: 127.0.0.1). "
           "May be given several times, for several devices. With --local it is the name by "
           "which the device is to know this client")
        ->option_text("HOST[:PORT]")
        ->allow_extra_args(false);
    app.add_option("--port", given.dwPort,
                   "The device's TCP port, where --address has none (default: " + strPort + ")")
        ->option_text("PORT")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--local", given.bLocal, "A device at this machine, over a local link");
    app.add_option("--option", given.rgstrOption,
                   "The text of a panel entry; may be given several times (default: \"notifymon\")")
        ->option_text("TEXT")
        ->allow_extra_args(false);
    app.add_option(
           "--on", given.rgstrOn,
           "What to subscribe to, of select,adf,button,fax (default: all that the link has; "
           "over a network select,fax)")
        ->option_text("KINDS")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"select", "adf", "button", "fax"}));
    app.add_flag("--wait", options.bWait, "Start without the device, and connect when it comes");
}

void DescribeOutput(CLI::App &app, Options &options)
{
    auto *const pJson = app.add_flag("--json", options.bJson,
                                     "One JSON object per line; the states of the link, too");
    app.add_option(
           "--format", options.strFormat,
           "How a line for people is made, such as \"%{time} %{device} %{text}\". Fields: " +
               FormatFields() + "; %% is a %")
        ->option_text("TEXT")
        ->excludes(pJson)
        ->check(FormatProblem);
    app.add_option("--exec", options.strCommand,
                   "A shell command to run for each notification, one after the other, each waited "
                   "for 10 seconds at most. Its input is empty, its output goes to the standard "
                   "error. Environment: " +
                       EnvironmentNames())
        ->option_text("COMMAND");
    app.add_option("--record", options.strRecord,
                   "Write what is heard to this file, as JSON lines with monotonic times")
        ->option_text("TAPE");
    options.strMask = kMaskAll;
    app.add_option("--mask", options.strMask,
                   "What stand-ins are recorded for, of addresses,names,texts, or none")
        ->option_text("PARTS")
        ->check(TapeMaskProblem)
        ->capture_default_str();
    app.add_option("--count", options.nCount, "End after so many notifications")
        ->option_text("N")
        ->check(CLI::Range(1, 1000000000));
    app.add_option("--timeout", options.rTimeout,
                   "End after so many seconds; with --count that is a failure")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.001, 1e9));
}

void DescribeRest(CLI::App &app, Options &options)
{
    app.add_option("--discover", options.strDiscover,
                   "Write a discovery job to this file, pipe or device, which must exist")
        ->option_text("TARGET");
    app.add_option("--registry", options.strRegistry,
                   "The settings file (default: the user's own, see docs/registry-file.md)")
        ->option_text("FILE");
    app.add_option("--diagnostics", options.strDiagnostics,
                   "Report what the agent does, under this name in the settings; they are read "
                   "again when the file has changed and at Ctrl-Break (SIGHUP)")
        ->option_text("NAME");
}

std::string Footer(bool bDoctor)
{
    if (bDoctor) {
        return "The options are those of the run that is to be examined. One line for each "
               "finding, "
               "and what to do below one that is not well.\n"
               "Exit code: 0 nothing failed, 1 something did, 2 bad usage.";
    }
    return "notifymon doctor OPTIONS tells why notifications do not come to a run with these "
           "options (see notifymon doctor --help).\n"
           "Prints one line per notification on the standard output and everything else on the "
           "standard error. While one is being printed or handed to the command, " +
           std::to_string(kEventLimit) +
           " wait at most; then the oldest are dropped, which is said.\n"
           "Ends on Ctrl-C within 2 seconds, a running command with it, and at a second Ctrl-C at "
           "once. What waits then is not handed out.\n"
           "Exit code: 0 done, 1 something failed or --count was not reached in time, 2 bad usage.";
}

[[noreturn]] void Refuse(char const *pszOption, std::string const &strWhy)
{
    throw CLI::ValidationError(pszOption, strWhy);
}

bool LooksLikeAHost(std::string const &str)
{
    return str.find_first_of(".:") != std::string::npos || str == "localhost";
}

SessionOptions LocalDevice(GivenOptions const &given)
{
    SessionOptions device;
    device.bLocal = true;
    device.strDevice = "local";
    if (given.addresses.size() > 1) {
        Refuse("--address", "one will do with --local, where it is this client's own name");
    }
    if (given.addresses.empty()) {
        return device;
    }
    std::string const &strName = given.addresses.front();
    if (LooksLikeAHost(strName)) {
        Refuse("--address", "\"" + strName +
                                "\" looks like a host's; with --local it is the name by which the "
                                "device is to know this client, of letters, digits, - and _");
    }
    if (strName.size() > kMaxOwnName) {
        Refuse("--address", "the name has " + std::to_string(strName.size()) + " bytes, and " +
                                std::to_string(kMaxOwnName) + " are the limit");
    }
    device.strAddress = strName;
    device.strDevice = strName;
    return device;
}

SessionOptions NetworkDevice(std::string const &strGiven)
{
    SessionOptions device;
    device.strDevice = strGiven;
    std::size_t const nColon = strGiven.find(':');
    device.strAddress = strGiven.substr(0, nColon);
    if (nColon != std::string::npos) {
        std::string const strPort = strGiven.substr(nColon + 1);
        bool const bDigits = !strPort.empty() && strPort.size() <= 5 &&
                             strPort.find_first_not_of("0123456789") == std::string::npos;
        device.dwPort = bDigits ? static_cast<DWORD>(std::stoul(strPort)) : 0;
        if (device.dwPort == 0 || device.dwPort > 65535) {
            Refuse("--address", "\"" + strPort + "\" is no port from 1 to 65535");
        }
    }
    if (device.strAddress.empty()) {
        Refuse("--address", "the address is empty");
    }
    return device;
}

void CheckOptionTexts(GivenOptions const &given)
{
    std::size_t const cbLimit = EntryLimit(given.bLocal);
    for (std::string const &strOption : given.rgstrOption) {
        if (strOption.empty()) {
            Refuse("--option", "the text is empty");
        }
        if (strOption.size() > cbLimit) {
            Refuse("--option", "the text has " + std::to_string(strOption.size()) +
                                   " bytes, and over this link " + std::to_string(cbLimit) +
                                   " are the limit");
        }
    }
}

DWORD FlagsOf(GivenOptions const &given)
{
    DWORD dwFlags = 0;
    for (SubscriptionName const &kind : kSubscriptions) {
        bool const bNamed = std::find(given.rgstrOn.begin(), given.rgstrOn.end(), kind.pszName) !=
                            given.rgstrOn.end();
        if (bNamed || (given.rgstrOn.empty() && (given.bLocal || !kind.bLocalOnly))) {
            dwFlags |= kind.dwFlag;
        }
    }
    return dwFlags;
}

// What depends on several options.
void Complete(GivenOptions const &given, Options &options)
{
    CheckOptionTexts(given);
    if (given.bLocal) {
        options.devices.push_back(LocalDevice(given));
    } else {
        for (std::string const &strAddress : given.addresses) {
            options.devices.push_back(NetworkDevice(strAddress));
        }
        if (options.devices.empty()) {
            options.devices.push_back(NetworkDevice("127.0.0.1"));
        }
    }
    options.bEntriesGiven = !given.rgstrOption.empty() || !given.rgstrOn.empty();
    for (SessionOptions &device : options.devices) {
        device.dwPort = device.dwPort == kNotifyNoPort ? given.dwPort : device.dwPort;
        device.dwFlags = FlagsOf(given);
        device.rgstrOption = given.rgstrOption;
        if (device.rgstrOption.empty()) {
            device.rgstrOption.emplace_back("notifymon");
        }
    }
}

} // namespace

std::optional<int> ReadOptions(int argc, char const *const *argv, Options &options)
{
    options.bDoctor = argc > 1 && std::strcmp(argv[1], "doctor") == 0;
    CLI::App app(options.bDoctor ? "Tells why notifications do not come to a run of notifymon."
                                 : "A client of the notification agent: prints what happens at a "
                                   "device.",
                 options.bDoctor ? "notifymon doctor" : "notifymon");
    GivenOptions given;
    if (options.bDoctor) {
        app.add_flag("--pick", options.bPick,
                     "Wait 30 seconds for somebody to pick the entry at the device: whether UDP "
                     "from there gets through");
        app.add_flag("--verbose", options.bVerbose, "List every setting");
    }
    DescribeDevices(app, given, options);
    DescribeOutput(app, options);
    DescribeRest(app, options);
    app.footer(Footer(options.bDoctor));
    // What depends on several options is refused as CLI11 refuses a single one.
    app.final_callback([&] { Complete(given, options); });
    int const nShift = options.bDoctor ? 1 : 0;
    return ParseCommandLine(app, argc - nShift, argv + nShift);
}
