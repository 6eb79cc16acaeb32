#include "evtmgr/g_tdhandler.h"

#include "evtmgr/g_evttext.h"
#include "platform/window.h"
#include "trace/g_trace.h"

#include <cstring>

CGTdEvtHandler::CGTdEvtHandler(CGEvtMgr *pEvtMgr)
    : CGBaseEvtHandler(pEvtMgr, "CGTdEvtHandler:CGBaseEvtHandler")
{
    m_strKeyName.Set("TD");
}

char const *CGTdEvtHandler::GetModuleName()
{
    return GTextOf(m_strKeyName.m_pszText);
}

DWORD CGTdEvtHandler::LoadModuleParams()
{
    TdLoadSettings(eTM_DEBUGGER);
    return 0;
}

LONG CGTdEvtHandler::IsOn()
{
    return m_State == 1 && g_hTdWindow.load() != nullptr ? 1 : 0;
}

DWORD CGTdEvtHandler::WriteText(char *pszText)
{
    if (pszText != nullptr) {
        TdSendLine(pszText);
    }
    return 0;
}
