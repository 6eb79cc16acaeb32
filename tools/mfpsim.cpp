// mfpsim: the software device as a process. Its panel is at the terminal, in a script and at a socket.
//
// Exit codes: 0 done, 1 the device could not start, a line of the script failed, a client departed from the tape or
// a command that was told was refused, 2 bad usage.
#include "device/soft_device.h"
#include "platform/console.h"
#include "tools/mfpsim_control.h"
#include "tools/mfpsim_fleet.h"
#include "tools/mfpsim_output.h"
#include "tools/mfpsim_record.h"
#include "tools/mfpsim_replay.h"
#include "tools/mfpsim_scenario.h"
#include "tools/mfpsim_terminal.h"
#include "tools/mfpsim_web.h"
#include "tools/showable.h"
#include "tools/usage.h"

#include <atomic>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr char kFleetFirst[] = "127.0.1.1";

struct Options {
    SoftDeviceConfig config;
    std::string strScript;
    std::string strJUnit;
    std::string strControl;
    std::string strWeb;
    std::string strRecord;
    std::string strMask = kMaskAll;
    std::string strReplay;
    double dSpeed = 1;
    bool fJson = false;
    unsigned nPort = kLinkDefaultPort;
    unsigned cFleet = 1;
    bool fListenGiven = false;
    unsigned cDrop = 0;
    unsigned cRepeat = 0;
    unsigned cReorder = 0;
    unsigned cLoseEcho = 0;
    unsigned cRefuse = 0;
    unsigned nLate = 0;
    KickOdds odds;
    std::string strTellSocket;            // of "tell"
    std::vector<std::string> tellCommand; // of "tell", its words
};

std::string Footer()
{
    std::string str = "\nCommands, at the terminal, one a line in a script, and for tell:\n";
    for (std::string const &strLine : CCommandSession::Help()) {
        str += strLine + "\n";
    }
    return str +
           "\nThe end of the standard input (Ctrl-D) closes the panel, the device runs on until "
           "Ctrl-C.\nA script that ends without quit leaves it running, too; one that fails "
           "ends it with exit code 1.";
}

void AddOptions(CLI::App &app, Options &options)
{
    app.footer(Footer());
    app.add_option("--listen", options.config.strListen, "dotted address to listen at")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--port", options.nPort, "TCP port to listen at, 0 for any that is free")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_option("--fleet", options.cFleet,
                   "so many devices, each at an address of its own: at --listen, or 127.0.1.1, and "
                   "those behind it")
        ->check(CLI::Range(1u, CSimFleet::kMost));
    app.add_option("--model", options.config.strModel, "model in the identification text")
        ->capture_default_str();
    app.add_option("--print-path", options.config.strPrintPath,
                   "FIFO or plain file to take discovery jobs from");
    app.add_option("--script", options.strScript, "file with commands to carry out first")
        ->check(CLI::ExistingFile);
    app.add_option("--junit", options.strJUnit,
                   "write what became of the script to this file, as JUnit's XML");
    app.add_option("--control", options.strControl,
                   "path of a socket to take commands at, see tell");
    app.add_option("--web", options.strWeb,
                   "show the front panel in a browser at [ADDRESS:]PORT, 0 for any port; at "
                   "127.0.0.1 unless told otherwise");
    app.add_option("--record", options.strRecord,
                   "write all frames and datagrams to this file, as JSON lines");
    app.add_option("--mask", options.strMask,
                   "what stand-ins are recorded for, of addresses,names,texts, or none")
        ->check(TapeMaskProblem)
        ->option_text("PARTS")
        ->capture_default_str();
    auto *const pReplay =
        app.add_option("--replay", options.strReplay,
                       "be the device of this tape again, for clients that do what those on it "
                       "did, and end with it")
            ->check(CLI::ExistingFile);
    for (char const *pszOther : {"--fleet", "--model", "--print-path", "--script"}) {
        pReplay->excludes(app.get_option(pszOther));
    }
    app.add_option("--speed", options.dSpeed, "so many times as fast as it was")
        ->check(CLI::Range(0.01, 1000.0))
        ->needs(pReplay);
    app.add_flag("--json", options.fJson, "print everything as JSON, one object a line");
    app.add_option("--drop", options.cDrop, "do not send the first N datagrams");
    app.add_option("--repeat", options.cRepeat, "send the first N datagrams twice");
    app.add_option("--reorder", options.cReorder, "let the first N datagrams be overtaken");
    app.add_option("--lose-echo", options.cLoseEcho, "take no notice of the first N echoes");
    app.add_option("--refuse-claim", options.cRefuse, "refuse the first N claims of a press");
    app.add_option("--late", options.nLate, "give every answer so many milliseconds late");
    app.add_option("--drop-odds", options.odds.dDrop, "odds of a datagram not to be sent")
        ->check(CLI::Range(0.0, 1.0));
    app.add_option("--repeat-odds", options.odds.dRepeat, "odds of a datagram to be sent twice")
        ->check(CLI::Range(0.0, 1.0));
    app.add_option("--reorder-odds", options.odds.dReorder, "odds of a datagram to be overtaken")
        ->check(CLI::Range(0.0, 1.0));
    app.add_option("--lose-echo-odds", options.odds.dLoseEcho, "odds of an echo not to be noticed")
        ->check(CLI::Range(0.0, 1.0));
    app.add_option("--seed", options.odds.nSeed, "of the odds")->capture_default_str();
}

CLI::App *AddTell(CLI::App &app, Options &options)
{
    CLI::App *const pTell =
        app.add_subcommand("tell", "give one command to a mfpsim that runs with --control");
    pTell->add_option("socket", options.strTellSocket, "the path given to --control")->required();
    pTell->add_option("command", options.tellCommand, "the command")->required();
    pTell->prefix_command();
    return pTell;
}

void Misbehave(CSoftDevice &device, Options const &options)
{
    struct {
        unsigned c;
        void (CSoftDevice::*pfn)(unsigned);
    } const counts[] = {{options.cDrop, &CSoftDevice::DropDatagrams},
                        {options.cRepeat, &CSoftDevice::RepeatDatagrams},
                        {options.cReorder, &CSoftDevice::ReorderDatagrams},
                        {options.cLoseEcho, &CSoftDevice::LoseEchoes},
                        {options.cRefuse, &CSoftDevice::RefuseClaims}};
    for (auto const &row : counts) {
        if (row.c > 0) {
            (device.*row.pfn)(row.c);
        }
    }
    if (options.nLate > 0) {
        device.SetLate(options.nLate);
    }
    device.SetDatagramOdds(options.odds);
}

// False when a line failed.
bool RunScript(CSimulation &simulation, CSimOutput &output, CScenario &scenario,
               Options const &options)
{
    bool fGood = scenario.Run(
        simulation, [&](CommandResult const &result) { output.Answer(result); },
        [](std::string const &strFailure) {
            std::istringstream lines(strFailure);
            char const *pszBefore = "mfpsim: ";
            for (std::string strLine; std::getline(lines, strLine); pszBefore = "") {
                std::cerr << pszBefore << Showable(strLine) << std::endl;
            }
        });
    std::string strError;
    if (!options.strJUnit.empty() && !scenario.WriteJUnit(options.strJUnit, &strError)) {
        std::cerr << "mfpsim: " << strError << std::endl;
        fGood = false;
    }
    return fGood;
}

std::atomic<CSimulation *> g_pSimulation{nullptr};

BOOL WINAPI OnConsole(DWORD)
{
    if (CSimulation *const pSimulation = g_pSimulation.load()) {
        pSimulation->Quit();
    }
    return TRUE;
}

// Ctrl-C ends the simulation for as long as this lives.
class CConsoleEnd {
public:
    explicit CConsoleEnd(CSimulation &simulation)
    {
        g_pSimulation = &simulation;
        SetConsoleCtrlHandler(OnConsole, TRUE);
    }
    ~CConsoleEnd()
    {
        SetConsoleCtrlHandler(OnConsole, FALSE);
        g_pSimulation = nullptr;
    }
    CConsoleEnd(CConsoleEnd const &) = delete;
    CConsoleEnd &operator=(CConsoleEnd const &) = delete;
};

// The words as one line; the shell has taken their quotes.
int Tell(Options const &options)
{
    std::string strLine;
    for (std::string const &strWord : options.tellCommand) {
        bool const fQuote = strWord.find_first_of(" \t#") != std::string::npos &&
                            strWord.find('"') == std::string::npos;
        strLine += (strLine.empty() ? "" : " ") + (fQuote ? '"' + strWord + '"' : strWord);
    }
    return TellSimulation(options.strTellSocket, strLine) ? 0 : eXC_FAILED;
}

// Where the devices are: of many, where the first and the last one is.
void TellPlaces(CSimOutput &output, CSimFleet const &fleet)
{
    auto const devices = fleet.Devices();
    auto const address = [](CSoftDevice const &device) {
        return device.Config().strListen + ":" + std::to_string(device.Port());
    };
    output.Event({eEV_LISTENING, {{"address", address(*devices.front())}}});
    if (devices.size() > 1) {
        output.Tell(std::to_string(devices.size()) + " devices, the last one at " +
                    address(*devices.back()));
    }
}

// All has been played: clients still hear it to the end.
void EndReplay(CSimulation &simulation, CSimOutput &output, CReplay &replay)
{
    output.Answer(CCommandSession(simulation).Execute("quit"));
    for (std::string const &strLine : replay.Remarks()) {
        output.Tell(strLine);
    }
    output.Tell("the tape has been played");
    simulation.Quit();
}

int Run(Options options)
{
    CReplay replay;
    bool const fReplay = !options.strReplay.empty();
    if (fReplay) {
        std::string strProblem;
        if (!replay.Load(options.strReplay, options.dSpeed, &strProblem)) {
            std::cerr << "mfpsim: " << Showable(strProblem) << std::endl;
            return eXC_FAILED;
        }
        options.cFleet = replay.DeviceCount();
        if (options.cFleet > 1 && !options.fListenGiven) {
            options.config.strListen = kFleetFirst;
        }
    }
    CScenario scenario;
    std::string strError;
    if (!options.strScript.empty() && !scenario.Load(options.strScript, &strError)) {
        std::cerr << "mfpsim: " << Showable(strError) << std::endl;
        return eXC_FAILED;
    }
    CPlatLineEditor editor;
    CSimOutput output(editor, options.fJson, PlatIsTerminal());
    CSimWeb web(options.cFleet);
    bool const fWeb = !options.strWeb.empty();
    bool const fRecord = !options.strRecord.empty();
    CTapeRecorder recorder(*ParseTapeMask(options.strMask));
    CSimulation *pSimulation = nullptr; // set before a device starts
    CSimFleet::Ears ears;
    ears.onEvent = [&](std::size_t n, DeviceEvent const &event) {
        output.Event(event, options.cFleet > 1 ? n : 0);
        pSimulation->Trail().Add(n, event);
        if (fWeb) {
            web.Event(n, event);
        }
        if (fRecord) {
            recorder.Event(n, event);
        }
        if (fReplay) {
            replay.Event(n, event);
        }
    };
    if (fWeb || fRecord) {
        ears.onFrame = [&](std::size_t n, DeviceFrame const &frame) {
            if (fWeb) {
                web.Frame(n, frame);
            }
            if (fRecord) {
                recorder.Frame(n, frame);
            }
        };
    }
    if (fRecord || fReplay) {
        ears.onDatagram = [&](std::size_t n, DeviceDatagram const &datagram) {
            if (fRecord) {
                recorder.Datagram(n, datagram);
            }
            if (fReplay) {
                replay.Datagram(n, datagram);
            }
        };
    }
    if (fReplay) {
        ears.onRequest = [&](std::size_t n, DWORD dwLink, LinkFrame const &request) {
            return replay.Request(n, dwLink, request);
        };
    }
    CSimFleet fleet(options.config, options.cFleet, ears);
    CSimulation simulation(fleet.Devices());
    pSimulation = &simulation;
    CConsoleEnd const console(simulation);
    CCommandSession const completion(simulation);
    bool const fEdit = editor.Open(
        "mfpsim> ", [&](std::string const &strBefore) { return completion.Complete(strBefore); });
    CControlSocket control(simulation);

    if ((fRecord && !recorder.Start(options.strRecord, options.cFleet, &strError)) ||
        !fleet.Start(&strError) ||
        (!options.strControl.empty() && !control.Start(options.strControl, &strError)) ||
        (fWeb && !web.Start(simulation, options.strWeb, &strError))) {
        std::cerr << "mfpsim: " << strError << std::endl;
        fleet.Stop(); // before what its events go to
        return eXC_FAILED;
    }
    for (CSoftDevice *const pDevice : fleet.Devices()) {
        Misbehave(*pDevice, options);
    }
    TellPlaces(output, fleet);
    if (fWeb) {
        output.Tell("pages at " + web.Url());
    }

    CSimTerminal terminal(simulation, editor, fEdit, output);
    int nExit = 0;
    if (fReplay) {
        replay.Start(fleet.Devices(), [&] { EndReplay(simulation, output, replay); });
    }
    if (!options.strScript.empty() && !RunScript(simulation, output, scenario, options)) {
        nExit = eXC_FAILED;
        simulation.Quit();
    }
    simulation.WaitForQuit();
    replay.Stop();
    if (replay.HasDeparted()) {
        nExit = eXC_FAILED;
    }
    web.Stop();
    fleet.Stop();
    terminal.End(nExit);
    return nExit;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"A multifunction peripheral in software, for clients of the notification agent.",
                 "mfpsim"};
    Options options;
    AddOptions(app, options);
    CLI::App const *const pTell = AddTell(app, options);
    if (auto const nExitCode = ParseCommandLine(app, argc, argv)) {
        return *nExitCode;
    }
    options.config.wPort = static_cast<WORD>(options.nPort);
    options.fListenGiven = app.count("--listen") > 0;
    if (options.cFleet > 1 && !options.fListenGiven) {
        options.config.strListen = kFleetFirst;
    }
    if (options.cFleet > 1 && !options.config.strPrintPath.empty()) {
        std::cerr << "mfpsim: a fleet has no print path" << std::endl;
        return eXC_USAGE;
    }
    try {
        if (*pTell) {
            return Tell(options);
        }
        return Run(std::move(options));
    } catch (std::exception const &error) {
        std::cerr << "mfpsim: " << error.what() << std::endl;
        return eXC_FAILED;
    }
}
