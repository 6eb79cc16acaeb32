#include "tools/notifymon_diagnostics.h"

#include "evtmgr/g_evthost.h"
#include "evtmgr/g_evtmgr.h"
#include "platform/registry.h"
#include "tools/notifymon_settings.h"
#include "trace/g_trace.h"

#include <atomic>
#include <cstdio>
#include <filesystem>

namespace {

// This program's rows in the trace viewer's tables of names: module 0, level 1.
constexpr std::uint64_t kTraceModule = 1;
constexpr DWORD kTraceLevel = 2;

// For the console's handler.
std::atomic<bool> g_bOn{false};
std::atomic<bool> g_bReloadAsked{false};

} // namespace

CDiagnostics::~CDiagnostics()
{
    if (IsOn()) {
        g_bOn = false;
        GRemoveEvtMgr(m_strName.c_str());
    }
}

bool CDiagnostics::Start(std::string const &strRegistry, std::string const &strName)
{
    if (!strRegistry.empty()) {
        DWORD const dwResult = PlatSetRegistryFile(strRegistry.c_str());
        if (TellProblem()) {
            return false;
        }
        if (dwResult != 0 || !std::filesystem::exists(strRegistry)) {
            std::fprintf(stderr, "notifymon: cannot read the settings file %s\n",
                         strRegistry.c_str());
            return false;
        }
    }
    if (strName.empty()) {
        return true;
    }
    m_qwStamp = PlatRegistryStamp();
    if (GInstallEvtMgr(strName.c_str()) != 0) {
        std::fputs("notifymon: out of memory for the event manager\n", stderr);
        return false;
    }
    m_strName = strName;
    g_bOn = true;
    TdConnect();
    return true;
}

bool CDiagnostics::AskForReload()
{
    if (!g_bOn) {
        return false;
    }
    g_bReloadAsked = true;
    return true;
}

void CDiagnostics::ReloadIfAsked()
{
    if (!IsOn()) {
        return;
    }
    bool const bAsked = g_bReloadAsked.exchange(false);
    std::uint64_t const qwStamp = PlatRegistryStamp();
    if (!bAsked && qwStamp == m_qwStamp) {
        return;
    }
    m_qwStamp = qwStamp;
    LoadParameters();
    if (!TellProblem()) {
        std::fputs("notifymon: settings read again\n", stderr);
        TdConnect();
    }
}

void CDiagnostics::Log(std::string const &strLine)
{
    if (IsOn()) {
        TdSetCurrent(kTraceModule, kTraceLevel);
        TdLog("%s", strLine.c_str());
    }
}

bool CDiagnostics::TellProblem() const
{
    std::string const strProblem = SettingsProblem();
    if (strProblem.empty()) {
        return false;
    }
    std::fprintf(stderr, "notifymon: settings refused: %s\n", strProblem.c_str());
    return true;
}
