#pragma once

// The command line of notifymon.

#include "session/session.h"

#include <optional>
#include <string>
#include <vector>

/// How many events wait at most for the one that is being printed or handed to a command.
constexpr std::size_t kEventLimit = 1000;

/// How long after the request the program has ended, whatever waits.
constexpr std::chrono::milliseconds kEndLimit{2000};

struct Options {
    bool bDoctor = false;  ///< examine the run instead of doing it
    bool bPick = false;    ///< doctor: wait for somebody to pick the entry
    bool bVerbose = false; ///< doctor: list every setting

    std::vector<SessionOptions> devices; ///< one or more, complete
    bool bEntriesGiven = false;          ///< --option or --on was given
    bool bWait = false;                  ///< a device that is not there is waited for
    bool bJson = false;
    std::string strFormat; ///< checked; empty for none
    std::string strCommand;
    std::string strRecord;
    std::string strMask; ///< checked
    std::string strDiscover;
    std::string strRegistry;
    std::string strDiagnostics;
    unsigned nCount = 0; ///< 0: no limit
    double rTimeout = 0; ///< seconds; 0: no limit
};

/// Reads the command line. The exit code if the program is to end here, with what there was to say said;
/// nothing if it is to go on.
std::optional<int> ReadOptions(int argc, char const *const *argv, Options &options);
