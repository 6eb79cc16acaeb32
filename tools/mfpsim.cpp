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

// The misbehaviour from the start on.
void AddHabits(CLI::App &app, Options &options)
{
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
    AddHabits(app, options);
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

bool LoadTape(Options &options, CReplay &replay)
{
    std::string strError;
    if (options.strReplay.empty()) {
        return true;
    }
    if (!replay.Load(options.strReplay, options.dSpeed, &strError)) {
        std::cerr << "mfpsim: " << Showable(strError) << std::endl;
        return false;
    }
    options.cFleet = replay.DeviceCount();
    if (options.cFleet > 1 && !options.fListenGiven) {
        options.config.strListen = kFleetFirst;
    }
    return true;
}

bool LoadScript(Options const &options, CScenario &scenario)
{
    std::string strError;
    bool const fLoaded = options.strScript.empty() || scenario.Load(options.strScript, &strError);
    if (!fLoaded) {
        std::cerr << "mfpsim: " << Showable(strError) << std::endl;
    }
    return fLoaded;
}

// The devices, and all that hears of them or gives them commands. Nothing runs before Run.
class CSimProgram {
public:
    CSimProgram(Options const &options, CReplay &replay, CScenario &scenario)
        : m_options(options), m_replay(replay), m_scenario(scenario),
          m_output(m_editor, options.fJson, PlatIsTerminal()), m_web(options.cFleet),
          m_recorder(*ParseTapeMask(options.strMask)),
          m_fleet(options.config, options.cFleet, MakeEars()), m_simulation(m_fleet.Devices())
    {
    }

    int Run();

private:
    CSimFleet::Ears MakeEars();
    void HearEvent(std::size_t n, DeviceEvent const &event);
    bool Start(std::string *pstrError);
    void TellPlaces();
    void EndReplay();

    Options const m_options;
    bool const m_fWeb = !m_options.strWeb.empty();
    bool const m_fRecord = !m_options.strRecord.empty();
    bool const m_fReplay = !m_options.strReplay.empty();
    CReplay &m_replay;
    CScenario &m_scenario;
    CPlatLineEditor m_editor;
    CSimOutput m_output;
    CSimWeb m_web;
    CTapeRecorder m_recorder;
    CSimFleet m_fleet;
    CSimulation m_simulation;
    CConsoleEnd const m_console{m_simulation};
    CCommandSession const m_completion{m_simulation};
    CControlSocket m_control{m_simulation};
};

void CSimProgram::HearEvent(std::size_t n, DeviceEvent const &event)
{
    m_output.Event(event, m_options.cFleet > 1 ? n : 0);
    m_simulation.Trail().Add(n, event);
    if (m_fWeb) {
        m_web.Event(n, event);
    }
    if (m_fRecord) {
        m_recorder.Event(n, event);
    }
    if (m_fReplay) {
        m_replay.Event(n, event);
    }
}

// What nobody wants to hear is not made.
CSimFleet::Ears CSimProgram::MakeEars()
{
    CSimFleet::Ears ears;
    ears.onEvent = [this](std::size_t n, DeviceEvent const &event) { HearEvent(n, event); };
    if (m_fWeb || m_fRecord) {
        ears.onFrame = [this](std::size_t n, DeviceFrame const &frame) {
            if (m_fWeb) {
                m_web.Frame(n, frame);
            }
            if (m_fRecord) {
                m_recorder.Frame(n, frame);
            }
        };
    }
    if (m_fRecord || m_fReplay) {
        ears.onDatagram = [this](std::size_t n, DeviceDatagram const &datagram) {
            if (m_fRecord) {
                m_recorder.Datagram(n, datagram);
            }
            if (m_fReplay) {
                m_replay.Datagram(n, datagram);
            }
        };
    }
    if (m_fReplay) {
        ears.onRequest = [this](std::size_t n, DWORD dwLink, LinkFrame const &request) {
            return m_replay.Request(n, dwLink, request);
        };
    }
    return ears;
}

bool CSimProgram::Start(std::string *pstrError)
{
    return (!m_fRecord || m_recorder.Start(m_options.strRecord, m_options.cFleet, pstrError)) &&
           m_fleet.Start(pstrError) &&
           (m_options.strControl.empty() || m_control.Start(m_options.strControl, pstrError)) &&
           (!m_fWeb || m_web.Start(m_simulation, m_options.strWeb, pstrError));
}

// Where the devices are: of many, where the first and the last one is.
void CSimProgram::TellPlaces()
{
    auto const devices = m_fleet.Devices();
    auto const address = [](CSoftDevice const &device) {
        return device.Config().strListen + ":" + std::to_string(device.Port());
    };
    m_output.Event({eEV_LISTENING, {{"address", address(*devices.front())}}});
    if (devices.size() > 1) {
        m_output.Tell(std::to_string(devices.size()) + " devices, the last one at " +
                      address(*devices.back()));
    }
    if (m_fWeb) {
        m_output.Tell("pages at " + m_web.Url());
    }
}

// All has been played: clients still hear it to the end.
void CSimProgram::EndReplay()
{
    m_output.Answer(CCommandSession(m_simulation).Execute("quit"));
    for (std::string const &strLine : m_replay.Remarks()) {
        m_output.Tell(strLine);
    }
    m_output.Tell("the tape has been played");
    m_simulation.Quit();
}

int CSimProgram::Run()
{
    bool const fEdit = m_editor.Open("mfpsim> ", [this](std::string const &strBefore) {
        return m_completion.Complete(strBefore);
    });
    std::string strError;
    if (!Start(&strError)) {
        std::cerr << "mfpsim: " << strError << std::endl;
        m_fleet.Stop(); // before what its events go to
        return eXC_FAILED;
    }
    for (CSoftDevice *const pDevice : m_fleet.Devices()) {
        Misbehave(*pDevice, m_options);
    }
    TellPlaces();

    CSimTerminal terminal(m_simulation, m_editor, fEdit, m_output);
    int nExit = 0;
    if (m_fReplay) {
        m_replay.Start(m_fleet.Devices(), [this] { EndReplay(); });
    }
    if (!m_options.strScript.empty() && !RunScript(m_simulation, m_output, m_scenario, m_options)) {
        nExit = eXC_FAILED;
        m_simulation.Quit();
    }
    m_simulation.WaitForQuit();
    m_replay.Stop();
    if (m_replay.HasDeparted()) {
        nExit = eXC_FAILED;
    }
    m_web.Stop();
    m_fleet.Stop();
    terminal.End(nExit);
    return nExit;
}

int Run(Options options)
{
    CReplay replay;
    CScenario scenario;
    if (!LoadTape(options, replay) || !LoadScript(options, scenario)) {
        return eXC_FAILED;
    }
    return CSimProgram(options, replay, scenario).Run();
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
