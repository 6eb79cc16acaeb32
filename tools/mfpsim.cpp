/*
 * mfpsim: the software device as a process, with a front panel at the terminal and from a script.
 *
 * Exit codes: 0 done, 1 the device could not start or a line of the script failed, 2 bad usage.
 */
#include "device/soft_device.h"
#include "platform/console.h"
#include "platform/input.h"
#include "tools/mfpsim_panel.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr DWORD kInputSliceMs = 100;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Options {
    SoftDeviceConfig config;
    std::string strScript;
    unsigned nPort = kLinkDefaultPort;
    unsigned cDrop = 0;
    unsigned cRepeat = 0;
    unsigned cReorder = 0;
    unsigned cLoseEcho = 0;
    unsigned cRefuse = 0;
    unsigned nLate = 0;
    KickOdds odds;
};

// Lines of several threads, each whole and at once: scripts wait for them.
void Print(std::string const &strLine)
{
    static std::mutex mx;
    std::lock_guard lock(mx);
    std::cout << strLine << std::endl;
}

std::string Footer()
{
    std::string str = "\nCommands, at the terminal and one a line in a script:\n";
    for (std::string const &strLine : CPanelCommands::Help())
        str += strLine + "\n";
    return str + "\nThe end of the standard input closes the panel, the device runs on until "
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
    app.add_option("--model", options.config.strModel, "model in the identification text")
        ->capture_default_str();
    app.add_option("--print-path", options.config.strPrintPath,
                   "FIFO or plain file to take discovery jobs from");
    app.add_option("--script", options.strScript, "file with commands to carry out first")
        ->check(CLI::ExistingFile);
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

void Misbehave(CSoftDevice &device, Options const &options)
{
    device.DropDatagrams(options.cDrop);
    device.RepeatDatagrams(options.cRepeat);
    device.ReorderDatagrams(options.cReorder);
    device.RefuseClaims(options.cRefuse);
    device.SetLate(options.nLate);
    device.LoseEchoes(options.cLoseEcho);
    device.SetDatagramOdds(options.odds);
}

// False when a line failed.
bool RunScript(CPanelCommands &panel, std::string const &strFile)
{
    std::ifstream file(strFile);
    std::string strLine;
    std::string strError;
    if (!file) {
        std::cerr << "mfpsim: script " << strFile << " cannot be read" << std::endl;
        return false;
    }
    for (int nLine = 1; !panel.IsQuitting() && std::getline(file, strLine); ++nLine) {
        if (panel.Execute(strLine, &strError))
            continue;
        std::cerr << "mfpsim: " << strFile << ":" << nLine << ": " << strError << std::endl;
        return false;
    }
    return true;
}

void RunTerminal(CPanelCommands &panel)
{
    std::string strPending;
    char piece[512];
    while (!panel.IsQuitting()) {
        int const n = PlatReadInput(piece, sizeof piece, kInputSliceMs);
        if (n < 0)
            return;
        strPending.append(piece, static_cast<size_t>(n));
        for (size_t nEnd; (nEnd = strPending.find('\n')) != std::string::npos;) {
            std::string strError;
            if (!panel.Execute(strPending.substr(0, nEnd), &strError))
                Print("error: " + strError);
            strPending.erase(0, nEnd + 1);
        }
    }
}

// A console that somebody has begun to type at gives a read back only at the end of the line. Nobody
// is to have to press a key for the program to end.
void EndTerminal(std::thread &thread, std::future<void> const &finished, int nExit)
{
    if (finished.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
        std::cout.flush();
        std::_Exit(nExit);
    }
    thread.join();
}

std::atomic<CPanelCommands *> g_pPanel{nullptr};

BOOL WINAPI OnConsole(DWORD)
{
    if (CPanelCommands *const pPanel = g_pPanel.load())
        pPanel->Quit();
    return TRUE;
}

int Run(Options const &options)
{
    CSoftDevice device(options.config);
    CPanelCommands panel(device, Print);
    g_pPanel = &panel;
    SetConsoleCtrlHandler(OnConsole, TRUE);

    int nExit = 0;
    std::string strError;
    if (device.Start(&strError)) {
        Misbehave(device, options);
        Print("listening on " + options.config.strListen + ":" + std::to_string(device.Port()));
        std::packaged_task<void()> task([&] { RunTerminal(panel); });
        std::future<void> const terminal = task.get_future();
        std::thread thread(std::move(task));
        if (!options.strScript.empty() && !RunScript(panel, options.strScript)) {
            nExit = kExitFailed;
            panel.Quit();
        }
        panel.WaitForQuit();
        device.Stop();
        EndTerminal(thread, terminal, nExit);
    } else {
        std::cerr << "mfpsim: " << strError << std::endl;
        nExit = kExitFailed;
    }
    SetConsoleCtrlHandler(OnConsole, FALSE);
    g_pPanel = nullptr;
    return nExit;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"A multifunction peripheral in software, for clients of the notification agent."};
    Options options;
    AddOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const &) {
        std::cout << app.help() << std::flush;
        return 0;
    } catch (CLI::ParseError const &error) {
        std::cerr << "mfpsim: " << error.what() << std::endl;
        return kExitUsage;
    }
    options.config.wPort = static_cast<WORD>(options.nPort);
    options.config.log = Print;
    try {
        return Run(options);
    } catch (std::exception const &error) {
        std::cerr << "mfpsim: " << error.what() << std::endl;
        return kExitFailed;
    }
}
