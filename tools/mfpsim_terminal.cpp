#include "tools/mfpsim_terminal.h"

#include "platform/input.h"

#include <chrono>
#include <cstdlib>

namespace {

constexpr DWORD kInputSliceMs = 100;
constexpr std::chrono::seconds kEndTime{1};

} // namespace

CSimTerminal::CSimTerminal(CSimulation &simulation, CPlatLineEditor &editor, bool fEdit,
                           CSimOutput &output)
    : m_simulation(simulation), m_editor(editor), m_fEdit(fEdit), m_output(output),
      m_session(simulation)
{
    std::packaged_task<void()> task([this] { Run(); });
    m_finished = task.get_future();
    m_thread = std::thread(std::move(task));
}

void CSimTerminal::End(int nExit)
{
    m_editor.Close();
    if (m_finished.wait_for(kEndTime) != std::future_status::ready) {
        std::_Exit(nExit);
    }
    m_thread.join();
}

void CSimTerminal::Run()
{
    if (PlatIsTerminal() && !PlatInForeground()) {
        m_output.Tell("in the background: the panel is closed until the program is in front");
    }
    if (m_fEdit) {
        RunEditor();
    } else {
        RunInput();
    }
    if (PlatIsTerminal() && !m_simulation.IsQuitting()) {
        m_output.Tell("the panel is closed, the device runs on; Ctrl-C ends it");
    }
}

void CSimTerminal::Execute(std::string const &strLine)
{
    CommandResult const result = m_session.Execute(strLine);
    m_output.Answer(result);
    if (result.fQuit) {
        m_simulation.Quit();
    }
}

void CSimTerminal::RunEditor()
{
    for (std::string strLine; !m_simulation.IsQuitting() && m_editor.Read(&strLine);) {
        Execute(strLine);
    }
}

void CSimTerminal::RunInput()
{
    std::string strPending;
    char piece[512];
    while (!m_simulation.IsQuitting()) {
        int const n = PlatReadInput(piece, sizeof piece, kInputSliceMs);
        if (n < 0) {
            return Execute(strPending); // a last line without an end
        }
        strPending.append(piece, static_cast<std::size_t>(n));
        for (std::size_t nEnd; (nEnd = strPending.find('\n')) != std::string::npos;) {
            Execute(strPending.substr(0, nEnd));
            strPending.erase(0, nEnd + 1);
        }
    }
}
