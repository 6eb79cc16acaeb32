// What the client subscribes to, and when the device is told.
#include "agent/agent_lock.h"
#include "agent/dol_objects.h"
#include "agent/QOMANoAg.h"
#include "dolrtl/QOMADolC.h"

namespace {

// Walks through the known flags of dwFlags, in the order of their values, until a step fails. panel
// does the panel entry, trap the row of another notification.
template <class PanelStep, class TrapStep>
DWORD WalkFlags(DWORD dwFlags, PanelStep panel, TrapStep trap)
{
    struct StepType {
        DWORD dwFlag;
        DWORD dwRow;
    };
    static constexpr StepType aSteps[] = {
        {eNF_SELECT, eDO_UI_SELECT_OPTION},
        {eNF_ADF, eDO_NOT_READY_SOURCE_SCANNER},
        {eNF_SCANNER_BUTTON, eDO_SCANNER_BUTTON_STATUS},
        {eNF_FAX_UPLOAD, eDO_FAX_UPLOAD},
    };
    bool bSeen = false;
    for (StepType const &step : aSteps) {
        if ((dwFlags & step.dwFlag) == 0) {
            continue;
        }
        bSeen = true;
        DWORD const dwResult = step.dwFlag == eNF_SELECT ? panel() : trap(step.dwRow);
        if (dwResult != NO_ERROR) {
            return dwResult;
        }
    }
    return bSeen ? NO_ERROR : ERROR_INVALID_PARAMETER;
}

// The count of a row, or null for a row that nobody subscribes to in this way.
DWORD *CountOfRow(DWORD dwRow, DWORD &cAdf, DWORD &cScannerButton, DWORD &cFaxUpload)
{
    switch (dwRow) {
    case eDO_NOT_READY_SOURCE_SCANNER:
        return &cAdf;
    case eDO_SCANNER_BUTTON_STATUS:
        return &cScannerButton;
    case eDO_FAX_UPLOAD:
        return &cFaxUpload;
    default:
        return nullptr;
    }
}

} // namespace

DWORD CNotifyAgent::Add(DWORD *pdwInstance, DWORD dwFlags, char const *pszOption)
{
    return RunConnected(
        m_hMutex, [this] { return IsDeviceInitialized(); },
        [&]() -> DWORD {
            return WalkFlags(
                dwFlags, [&] { return AddUIOptionTrap(pdwInstance, pszOption); },
                [&](DWORD dwRow) { return AddTrap(dwRow); });
        });
}

DWORD CNotifyAgent::Delete(DWORD dwInstance, DWORD dwFlags, char const *pszOption)
{
    return RunConnected(
        m_hMutex, [this] { return IsDeviceInitialized(); },
        [&]() -> DWORD {
            return WalkFlags(
                dwFlags, [&] { return DeleteUIOptionTrap(dwInstance, pszOption); },
                [&](DWORD dwRow) { return DeleteTrap(dwRow); });
        });
}

DWORD CNotifyAgent::Modify(DWORD *pdwInstance, char const *pszOldOption, char const *pszNewOption)
{
    return RunConnected(
        m_hMutex, [this] { return IsDeviceInitialized(); },
        [&]() -> DWORD {
            if (pdwInstance == nullptr || pszOldOption == nullptr || pszNewOption == nullptr) {
                return ERROR_INVALID_PARAMETER;
            }
            DWORD const dwResult = Delete(*pdwInstance, eNF_SELECT, pszOldOption);
            return dwResult != NO_ERROR ? dwResult : Add(pdwInstance, eNF_SELECT, pszNewOption);
        });
}

DWORD CNotifyAgent::SupportedOverNetwork(DWORD dwRow)
{
    bool const bLocalOnly =
        dwRow == eDO_NOT_READY_SOURCE_SCANNER || dwRow == eDO_SCANNER_BUTTON_STATUS;
    return m_bNetwork && bLocalOnly ? ERROR_NOT_SUPPORTED : NO_ERROR;
}

DWORD CNotifyAgent::AddTrap(DWORD dwRow)
{
    if (SupportedOverNetwork(dwRow) != NO_ERROR) {
        return ERROR_NOT_SUPPORTED;
    }
    DWORD *const pcTraps = CountOfRow(dwRow, m_cAdfTraps, m_cScannerButtonTraps, m_cFaxUploadTraps);
    if (pcTraps == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (*pcTraps == 0) {
        DWORD const dwResult = TrapDolObject(*m_pDolRtl, dwRow);
        if (dwResult != NO_ERROR) {
            return dwResult;
        }
    }
    ++*pcTraps;
    if (dwRow == eDO_SCANNER_BUTTON_STATUS && *pcTraps == 1) {
        ResetScannerButtonOff(); // the device's answer does not undo the subscription
    }
    return NO_ERROR;
}

DWORD CNotifyAgent::DeleteTrap(DWORD dwRow)
{
    if (SupportedOverNetwork(dwRow) != NO_ERROR) {
        return ERROR_NOT_SUPPORTED;
    }
    DWORD *const pcTraps = CountOfRow(dwRow, m_cAdfTraps, m_cScannerButtonTraps, m_cFaxUploadTraps);
    if (pcTraps == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (*pcTraps == 0) {
        return ERROR_REM_NOT_LIST;
    }
    if (*pcTraps == 1) {
        DWORD const dwResult = UnTrapDolObject(*m_pDolRtl, dwRow);
        if (dwResult != NO_ERROR) {
            return dwResult;
        }
    }
    --*pcTraps;
    return NO_ERROR;
}

DWORD CNotifyAgent::ResetScannerButtonOff()
{
    return SetScannerButtonOff(*m_pDolRtl);
}

// Nothing in the agent calls it; it reads the selection object so that the library fetches it anew.
DWORD CNotifyAgent::UISelectOption(DWORD, char const *)
{
    DolObjectType &object = g_DolObjects[eDO_UI_SELECT_OPTION];
    m_pDolRtl.load()->Get(object.oid, object.length, object.dataType);
    return NO_ERROR;
}
