#pragma once
/// @file
/// notifymon as a host of the event manager: installs it, lets it read changed settings while the
/// program runs, removes it at the end. All on the main thread, and around the life of the agent.
#include <cstdint>
#include <string>

class CDiagnostics {
public:
    CDiagnostics() = default;
    /// Removes the manager, which writes the final report. The agent must be gone.
    ~CDiagnostics();

    CDiagnostics(CDiagnostics const &) = delete;
    CDiagnostics &operator=(CDiagnostics const &) = delete;

    /// strRegistry is the settings file, or empty for the usual one; strName the manager's name, or
    /// empty for no diagnostics. False, with a line on stderr, when the file is refused or the manager
    /// cannot be had.
    bool Start(std::string const &strRegistry, std::string const &strName);

    bool IsOn() const { return !m_strName.empty(); }

    /// Asks for a reload, whatever thread. False while no diagnostics are on.
    static bool AskForReload();

    /// Reads the settings again if that was asked for or if their file has changed. A file that is refused
    /// is told in a line on stderr, and the settings in force stay.
    void ReloadIfAsked();

    /// A line of this program's own to the trace viewer.
    void Log(std::string const &strLine);

private:
    bool TellProblem() const;

    std::string m_strName;
    std::uint64_t m_qwStamp = 0; // of the settings that were read last
};
