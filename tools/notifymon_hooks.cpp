#include "tools/notifymon_hooks.h"

#include "tools/notifymon_output.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

// How long a command can keep the next notification waiting, in milliseconds.
constexpr DWORD kCommandLimit = 10000;

void Tell(std::string const &strText)
{
    std::fprintf(stderr, "notifymon: %s\n", strText.c_str());
}

} // namespace

void CHooks::Run(SessionEvent const &event, Notification const &notification)
{
    if (m_strCommand.empty()) {
        return;
    }
    std::list<CPlatCommand>::iterator itCommand;
    {
        CPlatGuard const lock(m_mx);
        Sweep();
        itCommand = m_running.emplace(m_running.end());
        if (m_bEnded || !Start(*itCommand, event, notification)) {
            m_running.erase(itCommand);
            return;
        }
    }
    DWORD dwExitCode = 0;
    bool const bEnded = itCommand->Wait(kCommandLimit, &dwExitCode) != FALSE;
    CPlatGuard const lock(m_mx);
    if (m_bEnded) {
        return; // it was ended by us
    }
    if (!bEnded) {
        Tell("the command has not ended yet; going on without it");
        return;
    }
    m_running.erase(itCommand);
    if (dwExitCode != 0) {
        Tell("the command ended with exit code " + std::to_string(dwExitCode));
    }
}

bool CHooks::Start(CPlatCommand &command, SessionEvent const &event,
                   Notification const &notification)
{
    auto const fields = EnvironmentOf(event, notification);
    std::vector<PlatEnvType> variables;
    for (auto const &[strName, strValue] : fields) {
        variables.push_back({strName.c_str(), strValue.c_str()});
    }
    if (!command.Start(m_strCommand.c_str(), variables.data(), variables.size())) {
        Tell("cannot run the command: error " + std::to_string(GetLastError()));
        return false;
    }
    return true;
}

// Under the lock: lets go of those that took too long and have ended since.
void CHooks::Sweep()
{
    m_running.remove_if([](CPlatCommand &command) {
        DWORD dwExitCode = 0;
        return command.Wait(0, &dwExitCode) != FALSE;
    });
}

// From here on nobody but this one and Kill touches the list.
void CHooks::Close()
{
    CPlatGuard const lock(m_mx);
    m_bEnded = true;
}

void CHooks::End(SessionTime tpLimit)
{
    Close();
    auto const left =
        std::chrono::duration_cast<std::chrono::milliseconds>(tpLimit - SessionClock::now());
    auto const dwLeft = static_cast<DWORD>(std::max<std::int64_t>(left.count(), 0));
    std::vector<std::thread> threads; // all at a time
    for (CPlatCommand &command : m_running) {
        threads.emplace_back([&command, dwLeft] { command.End(dwLeft); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

void CHooks::Kill()
{
    Close();
    for (CPlatCommand &command : m_running) {
        command.End(0);
    }
}
