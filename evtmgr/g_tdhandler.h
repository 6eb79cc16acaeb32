#pragma once

#include "evtmgr/g_evthandler.h"

/// Sends each line to the window of the trace viewer. It is on while the registry says so and the window
/// is known, which takes a TdConnect by the host; the handler itself looks for no window.
///
/// A viewer that hangs holds up every thread that reports: the send returns when the viewer has taken
/// the line, and the reporting thread holds the manager's queue mutex all the while.
class CGTdEvtHandler : public CGBaseEvtHandler {
public:
    /// Reads nothing yet. @param pEvtMgr the manager that it belongs to, not referenced.
    explicit CGTdEvtHandler(CGEvtMgr *pEvtMgr);

    /// "TD".
    char const *GetModuleName() override;
    /// @{
    /// Reads the viewer's settings, with the debugger among the places to log to. @return 0.
    DWORD LoadModuleParams() override;
    LONG IsOn() override;
    /// @}
    /// Sends WM_COPYDATA with the line and its terminator; what the window answers does not matter.
    /// @return 0.
    DWORD WriteText(char *pszText) override;

    CGString m_strKeyName; ///< "TD"
};
