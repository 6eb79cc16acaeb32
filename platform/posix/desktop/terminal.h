#pragma once

// The terminal that a line is edited at: its signals, its width, and what is written to it.

#include <csignal>
#include <cstddef>
#include <string>

// Signals that concern the terminal write their number into fdWake for as long as the object lives; there is
// one at a time. The two that stop a program which touches its terminal from the background fail the call
// instead.
class CTerminalSignals {
public:
    explicit CTerminalSignals(int fdWake);
    ~CTerminalSignals();
    CTerminalSignals(CTerminalSignals const &) = delete;
    CTerminalSignals &operator=(CTerminalSignals const &) = delete;

private:
    static constexpr int kSignals[] = {SIGTSTP, SIGCONT, SIGWINCH};
    struct sigaction m_aFormer[sizeof(kSignals) / sizeof(kSignals[0])];
    sigset_t m_formerMask;
};

/// Of the terminal, or 80.
unsigned TerminalColumns();

/// Columns that the text takes.
unsigned TerminalWidthOf(char const *p, std::size_t cb);

/// Gives up only when the terminal is gone.
void TerminalWrite(std::string const &str);
