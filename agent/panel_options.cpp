// Option strings: what the client offers on the device's panel, with clauses that say who offers it.
//
//     Paper Archive;NETADDR=10.1.2.3:1037;SWINST=4711;
//
// Over a local link the device hands the text to every client that watches the object, so the agent
// has to tell its own from others' by the NETADDR= clause that it built last.
#include <cstdio>
#include <cstring>

#include "agent/dol_objects.h"
#include "agent/QOMANoAg.h"
#include "dolrtl/QOMADolC.h"
#include "foundation/g_text.h"
#include "platform/lock.h"
#include "platform/runtime.h"

namespace {

constexpr char kNetAddrKey[] = "NETADDR=";
constexpr char kInstanceKey[] = "SWINST=";

// Over every agent's m_strNetAddr: the trap reader tests it while an operation replaces it by a
// finished text. A leaf lock, held for a swap or for one search through a trap's text, so one for all
// agents will do.
CPlatMutex g_mtxNetAddr;

bool EndsInSeparator(char const *pszText, std::size_t cchText)
{
    return pszText[cchText - 1] == g_aszText[eGT_SEMICOLON][0];
}

// A number as signed decimal text.
struct CNumberText {
    explicit CNumberText(int nValue) { std::snprintf(szText, sizeof szText, "%d", nValue); }
    char szText[12];
};

DWORD SetOption(CDolRtl &link, DWORD dwRow, CString const &strOption)
{
    char const *const pszOption = strOption;
    return SetDolObject(link, dwRow, pszOption, static_cast<DWORD>(std::strlen(pszOption)));
}

} // namespace

// Everything that can run out of memory comes before anything that the caller can see has changed.
DWORD CNotifyAgent::InsertNetAddr(char const *pszText, CString *pstrOut, DWORD *pdwNumber,
                                  int bNewNumber, char const *pszKey)
{
    std::size_t const cchText = pszText != nullptr ? std::strlen(pszText) : 0;
    if (cchText == 0) {
        return ERROR_INVALID_PARAMETER;
    }
    CString strNetAddr(kNetAddrKey);
    if (m_bNetwork) {
        strNetAddr += m_strHostAddress;
        strNetAddr += g_aszText[eGT_COLON];
        strNetAddr += CNumberText(m_wPort).szText;
    } else if (CDolRtl *const pDolRtl = m_pDolRtl; pDolRtl != nullptr) {
        strNetAddr += pDolRtl->GetAddress();
    }
    strNetAddr += g_aszText[eGT_SEMICOLON];

    CString strOut(pszText);
    if (!EndsInSeparator(pszText, cchText)) {
        strOut += g_aszText[eGT_SEMICOLON];
    }
    strOut += strNetAddr;
    strOut += pszKey;
    DWORD const dwNumber = bNewNumber ? static_cast<DWORD>(crt::rand()) : *pdwNumber;
    strOut += CNumberText(static_cast<int>(dwNumber)).szText;
    strOut += g_aszText[eGT_SEMICOLON];

    {
        CPlatGuard const lock(g_mtxNetAddr);
        std::swap(m_strNetAddr, strNetAddr);
    }
    *pstrOut = std::move(strOut);
    *pdwNumber = dwNumber;
    return NO_ERROR;
}

DWORD CNotifyAgent::AddUIOptionTrap(DWORD *pdwInstance, char const *pszOption)
{
    if (pszOption == nullptr || pdwInstance == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    CString strOption;
    DWORD dwResult = InsertNetAddr(pszOption, &strOption, pdwInstance, 1, kInstanceKey);
    if (dwResult != NO_ERROR) {
        return dwResult;
    }
    dwResult = SetOption(*m_pDolRtl, eDO_UI_ADD_OPTION, strOption);
    if (dwResult != NO_ERROR || m_bNetwork) {
        return dwResult; // over a network a selection comes as a datagram: no trap, no count
    }
    if (m_cSelectTraps == 0) {
        dwResult = TrapDolObject(*m_pDolRtl, eDO_UI_SELECT_OPTION);
        if (dwResult != NO_ERROR) {
            return dwResult;
        }
    }
    ++m_cSelectTraps;
    return NO_ERROR;
}

// Unlike DeleteTrap it takes the subscription back first, and has no complaint about a count of 0.
DWORD CNotifyAgent::DeleteUIOptionTrap(DWORD dwInstance, char const *pszOption)
{
    CString strOption;
    DWORD dwResult = InsertNetAddr(pszOption, &strOption, &dwInstance, 0, kInstanceKey);
    if (dwResult != NO_ERROR) {
        return dwResult;
    }
    dwResult = SetOption(*m_pDolRtl, eDO_UI_DELETE_OPTION, strOption);
    if (dwResult != NO_ERROR || m_bNetwork || m_cSelectTraps == 0) {
        return dwResult;
    }
    return --m_cSelectTraps > 0 ? NO_ERROR : UnTrapDolObject(*m_pDolRtl, eDO_UI_SELECT_OPTION);
}

int CNotifyAgent::NetAddrIsOurs(char const *pszText)
{
    CPlatGuard const lock(g_mtxNetAddr);
    char const *const pszNetAddr = m_strNetAddr;
    return _mbsstr(reinterpret_cast<unsigned char const *>(pszText),
                   reinterpret_cast<unsigned char const *>(pszNetAddr)) != nullptr;
}
