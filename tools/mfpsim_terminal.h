#pragma once
/// @file
/// The panel of mfpsim at the terminal or on whatever else the standard input is.

#include "platform/lineedit.h"
#include "tools/mfpsim_output.h"

#include <future>
#include <thread>

/// Reads commands on a thread of its own, from its constructor to its end.
class CSimTerminal {
public:
    /// With fEdit the editor, which is open then, reads; else the standard input is read a line at a time.
    /// All have to outlive it.
    CSimTerminal(CSimulation &simulation, CPlatLineEditor &editor, bool fEdit, CSimOutput &output);

    /// After CSimulation::Quit: ends the reading. A console that somebody has begun to type at gives a read
    /// back only at the end of the line, and nobody is to have to press a key for the program to end: then
    /// the process ends here, with that exit code.
    void End(int nExit);

private:
    void Run();
    void RunEditor();
    void RunInput();
    void Execute(std::string const &strLine);

    CSimulation &m_simulation;
    CPlatLineEditor &m_editor;
    bool const m_fEdit;
    CSimOutput &m_output;
    CCommandSession m_session;
    std::future<void> m_finished;
    std::thread m_thread;
};
