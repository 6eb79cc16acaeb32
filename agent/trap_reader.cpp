// Drains the traps that wait in the access library, and turns them into notifications.
#include "agent/trap_reader.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <new>

#include "agent/agent_lock.h"
#include "agent/callback_qthread.h"
#include "agent/dol_callback.h"
#include "agent/dol_objects.h"
#include "agent/QOMANoAg.h"
#include "agent/stack_list.h"
#include "dolrtl/QOMADolC.h"
#include "foundation/g_text.h"
#include "platform/afx.h"
#include "platform/lock.h"
#include "platform/sync.h"

namespace {

constexpr DWORD kcbTrapValue = 349;               // bytes of a value that are taken
constexpr DWORD kcbTrapBuffer = kcbTrapValue + 1; // so that a text always ends in a zero

constexpr DWORD kFeederBit = 0x10;
constexpr DWORD kButtonPressed = 2;
constexpr DWORD kFaxWaits = 6;

// {7D1E6A40-52C3-4B9E-A1F6-3E90C4D27B15}: written to SCAN_TOKEN it claims a press for this host.
constexpr unsigned char kClaimToken[16] = {0x40, 0x6A, 0x1E, 0x7D, 0xC3, 0x52, 0x9E, 0x4B,
                                           0xA1, 0xF6, 0x3E, 0x90, 0xC4, 0xD2, 0x7B, 0x15};
constexpr unsigned char kFreeToken[16] = {};

// One drain's hold on the link. The library's own thread needs no entry in the list: the destructor of
// the access object waits for it, and it may need that destructor to break off a request that hangs.
class CDrain {
public:
    explicit CDrain(std::atomic<CDolRtl *> const &pDolRtl) : m_bListed(!InDolRtlCallback())
    {
        if (!m_bListed) {
            m_pLink = pDolRtl;
            return;
        }
        // Looked at under the lock: Shutdown clears the pointer first and walks the list then, so it
        // either finds this drain or this drain finds no link.
        CPlatGuard const lock(s_mtxDrains);
        m_pLink = pDolRtl;
        s_drains.Add(*this);
    }
    ~CDrain()
    {
        if (m_bListed) {
            CPlatGuard const lock(s_mtxDrains);
            s_drains.Remove(*this);
        }
    }
    CDrain(CDrain const &) = delete;
    CDrain &operator=(CDrain const &) = delete;

    CDolRtl *Link() const { return m_pLink; }

    static bool Uses(CDolRtl const *pDolRtl)
    {
        CPlatGuard const lock(s_mtxDrains);
        return s_drains.Find([&](CDrain const &drain) { return drain.m_pLink == pDolRtl; }) !=
               nullptr;
    }

private:
    friend class CStackList<CDrain>;
    // Those in progress, of all agents. A leaf lock, held for a walk through them.
    static inline CPlatMutex s_mtxDrains;
    static inline CStackList<CDrain> s_drains PLAT_GUARDED_BY(s_mtxDrains);

    bool const m_bListed;
    CDolRtl *m_pLink = nullptr;
    CDrain *m_pNext = nullptr;
};

DWORD WordOf(char const *pValue)
{
    DWORD dwValue;
    std::memcpy(&dwValue, pValue, sizeof dwValue);
    return dwValue;
}

// Claims a press of the scanner button for this host. In every case the button's status goes back to
// off after the attempt; a claimed token is freed again before anybody hears of the press.
bool ClaimButtonPress(CDolRtl &link)
{
    bool const bOurs =
        SetDolObject(link, eDO_SCAN_TOKEN, kClaimToken, sizeof kClaimToken) == NO_ERROR;
    SetScannerButtonOff(link);
    if (bOurs) {
        SetDolObject(link, eDO_SCAN_TOKEN, kFreeToken, sizeof kFreeToken);
    }
    return bOurs;
}

// What the client is to hear of a trap.
struct NoticeType {
    CallbackType eType = eCT_SELECT_NOTIFY;
    int nValue = 0;
    DWORD dwValue = 0;
    char const *pszOption = g_aszText[eGT_EMPTY];
};

// Whether the client is to hear of it, and what. fnIsOurs tells of an option's text whether it came by us. 50 for
// a trap that nobody knows.
template <class IsOurs>
DWORD ReadNotice(CDolRtl &link, DWORD dwRow, char const *pValue, IsOurs fnIsOurs, bool *pbTell,
                 NoticeType *pNotice)
{
    DWORD const dwWord = WordOf(pValue);
    *pbTell = false;
    switch (dwRow) {
    case eDO_UI_ADD_OPTION:
    case eDO_UI_DELETE_OPTION:
    case eDO_SERIAL_NUMBER:
        return NO_ERROR;
    case eDO_UI_SELECT_OPTION:
        *pbTell = fnIsOurs(pValue);
        *pNotice = {eCT_SELECT_NOTIFY, 0, 0, pValue};
        return NO_ERROR;
    case eDO_NOT_READY_SOURCE_SCANNER:
        *pbTell = true;
        *pNotice = {eCT_ADF_NOTIFY, (dwWord & kFeederBit) != 0 ? 1 : 0};
        return NO_ERROR;
    case eDO_SCANNER_BUTTON_STATUS:
        *pbTell = dwWord == kButtonPressed && ClaimButtonPress(link);
        *pNotice = {eCT_SCANNER_BUTTON_NOTIFY, 0, kButtonPressed};
        return NO_ERROR;
    case eDO_FAX_UPLOAD:
        *pbTell = dwWord == kFaxWaits;
        *pNotice = {eCT_FAX_UPLOAD_NOTIFY};
        return NO_ERROR;
    default:
        return ERROR_NOT_SUPPORTED;
    }
}

} // namespace

void WaitForDrains(CDolRtl const *pDolRtl)
{
    while (CDrain::Uses(pDolRtl)) {
        Sleep(1);
    }
}

DWORD CNotifyAgent::ReadTraps()
{
    std::unique_ptr<char[]> const pValue(new (std::nothrow) char[kcbTrapBuffer]);
    if (pValue == nullptr) {
        AfxThrowMemoryException();
    }
    CDrain const drain(m_pDolRtl);
    CDolRtl *const pDolRtl = drain.Link();
    if (pDolRtl == nullptr) {
        return WithoutLink(IsDeviceInitialized());
    }
    DWORD dwResult = NO_ERROR;
    while (m_pDolRtl == pDolRtl) { // what Shutdown has given up is not drained to the end
        std::memset(pValue.get(), 0, kcbTrapBuffer);
        DWORD cbValue = 0;
        unsigned char dataType = 0;
        unsigned short wTrapId = 0;
        DWORD const dwRead = pDolRtl->ReadTrap(reinterpret_cast<unsigned char *>(pValue.get()),
                                               kcbTrapValue, &cbValue, &dataType, &wTrapId);
        if (dwRead != NO_ERROR) {
            return dwRead == ERROR_FILE_NOT_FOUND ? dwResult : dwRead;
        }
        NoticeType notice;
        bool bTell = false;
        DWORD const dwKnown = ReadNotice(
            *pDolRtl, wTrapId, pValue.get(),
            [this](char const *pszText) { return NetAddrIsOurs(pszText) != 0; }, &bTell, &notice);
        if (dwKnown != NO_ERROR) {
            dwResult = dwKnown;
        }
        if (bTell) {
            CCallbackQThread::PostTo(m_pCallbackQThread, notice.eType, notice.nValue,
                                     notice.dwValue, notice.pszOption, g_aszText[eGT_EMPTY],
                                     g_aszText[eGT_EMPTY]);
        }
    }
    return dwResult;
}
