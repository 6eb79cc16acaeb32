#include "hub/exec_sink.h"

#include "platform/process.h"

#include <chrono>

namespace {

constexpr DWORD kLook = 50;      // ms between two looks whether the hub ends
constexpr DWORD kKindness = 500; // ms that a program has to end by itself
constexpr DWORD kDataError = 65; // of sysexits

} // namespace

CExecSink::CExecSink(HubExecSettings settings) : m_settings(std::move(settings))
{
    for (std::string const &strArgument : m_settings.rgstrArgument) {
        m_apsz.push_back(strArgument.c_str());
    }
}

HubOutcomeType CExecSink::Deliver(HubEvent const &event, std::string *pstrWhy)
{
    if (m_bStopped) {
        *pstrWhy = "the hub ends";
        return eHO_LATER;
    }
    std::string const strInput = event.strJson + "\n";
    CPlatCommand command;
    if (!command.StartProgram(m_apsz.data(), m_apsz.size(), strInput.data(), strInput.size())) {
        *pstrWhy = m_settings.rgstrArgument.front() + " cannot be started: error " +
                   std::to_string(GetLastError());
        return eHO_LATER;
    }
    auto const tpEnd = std::chrono::steady_clock::now() + m_settings.limit;
    DWORD dwExitCode = 0;
    while (!command.Wait(kLook, &dwExitCode)) {
        bool const bLate = std::chrono::steady_clock::now() >= tpEnd;
        if (bLate || m_bStopped) {
            command.End(kKindness);
            *pstrWhy = bLate ? "ended after " + std::to_string(m_settings.limit.count()) + " ms"
                             : "the hub ends";
            return eHO_LATER;
        }
    }
    if (dwExitCode == 0) {
        return eHO_TAKEN;
    }
    *pstrWhy = "exit code " + std::to_string(dwExitCode);
    return dwExitCode == kDataError ? eHO_REFUSED : eHO_LATER;
}
