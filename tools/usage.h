#pragma once

// What the command lines of all programs have in common: help of 80 columns, --version, and bad usage in
// one line.

#include <CLI/CLI.hpp>

#include <optional>

enum ExitCode { eXC_DONE = 0, eXC_FAILED = 1, eXC_USAGE = 2 };

/// Parses the command line into what the options of `app` are bound to, whose name is the program's. The
/// exit code if the program is to end here, after --help, --version or a line on the standard error that
/// says what is wrong; nothing if it is to go on.
std::optional<int> ParseCommandLine(CLI::App &app, int argc, char const *const *argv);
