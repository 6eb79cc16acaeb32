#include "capi/foreign_client.h"

#include "capi/client_table.h"
#include "platform/readiness.h"
#include "platform/runtime.h"
#include "platform/sync.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr std::size_t kcMaxWaiting = 1024;

thread_local int t_cInCallback = 0;

template <std::size_t cb>
void CopyText(char (&szOut)[cb], char const *psz)
{
    lstrcpynA(szOut, psz, static_cast<int>(cb));
}

qoma_notification RecordOf(CallbackType eType, CallbackDataType const &data)
{
    qoma_notification record{};
    record.size = sizeof record;
    record.kind = eType;
    record.notify_code = data.dwNotifyCode;
    record.value = data.nValue;
    record.word = data.dwValue;
    CopyText(record.option, data.strOption);
    CopyText(record.sender_address, data.strSenderAddress);
    CopyText(record.sender_name, data.strSenderName);
    return record;
}

// What the client has room for; what it has beyond our record is cleared.
void HandOut(qoma_notification const &record, qoma_notification *pOut)
{
    DWORD const cbOut = pOut->size;
    DWORD const cbKnown = std::min<DWORD>(cbOut, sizeof record);
    std::memset(static_cast<void *>(pOut), 0, cbOut);
    std::memcpy(static_cast<void *>(pOut), &record, cbKnown);
    pOut->size = cbKnown;
}

} // namespace

CForeignClient::CForeignClient(qoma_callback pfnCallback, void *pvUser, DWORD nSlot)
    : m_pfnCallback(pfnCallback), m_pvUser(pvUser), m_agent(OnNotify, nSlot)
{
}

CForeignClient::~CForeignClient()
{
    PlatReadinessClose(m_nReadiness);
}

bool CForeignClient::IsInCallback()
{
    return t_cInCallback != 0;
}

// No callback follows: the agent has waited for the last one, and whoever connects meanwhile finds that this is
// closed.
void CForeignClient::Close()
{
    CPlatGuard const link(m_mtxLink);
    m_fClosed = true;
    m_agent.Shutdown(); // that it was not connected is as good
    NoteLink(LinkState());
}

qoma_result CForeignClient::Connect(char const *pszAddress, DWORD dwPort, int bNetwork)
{
    CPlatGuard const link(m_mtxLink);
    if (m_fClosed) {
        return QOMA_E_INVALID_HANDLE;
    }
    DWORD const dwResult = m_agent.Init(pszAddress, dwPort, bNetwork);
    NoteLink(LinkState());
    return dwResult;
}

qoma_result CForeignClient::Disconnect()
{
    CPlatGuard const link(m_mtxLink);
    DWORD const dwResult = m_agent.Shutdown();
    NoteLink(LinkState());
    return dwResult;
}

qoma_result CForeignClient::Restart()
{
    CPlatGuard const link(m_mtxLink);
    DWORD const dwResult = m_agent.RestartDolRtl();
    NoteLink(LinkState());
    return dwResult;
}

// Nothing is asked of the agent: if there is a link, what it finds amiss is that.
DWORD CForeignClient::LinkState()
{
    if (m_fClosed) {
        return ERROR_INVALID_HANDLE;
    }
    DWORD const dwState = m_agent.Delete(0, 0, nullptr);
    return dwState == ERROR_INVALID_PARAMETER ? NO_ERROR : dwState;
}

qoma_result CForeignClient::Poll(DWORD dwTimeoutMs, qoma_notification *pNotification)
{
    if (m_pfnCallback != nullptr || (dwTimeoutMs != 0 && IsInCallback())) {
        return QOMA_E_NOT_SUPPORTED;
    }
    CPlatWaitGuard lock(m_mtx);
    auto const tpEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwTimeoutMs);
    while (!IsReady()) {
        if (dwTimeoutMs == INFINITE) {
            m_changed.wait(lock.Native());
        } else if (m_changed.wait_until(lock.Native(), tpEnd) == std::cv_status::timeout) {
            break;
        }
    }
    if (m_waiting.empty() || m_dwLinkState == ERROR_INVALID_HANDLE) {
        return m_dwLinkState != NO_ERROR ? m_dwLinkState : QOMA_E_NOTHING;
    }
    qoma_notification record = m_waiting.front();
    record.lost = std::exchange(m_cLost, 0);
    record.lost_kinds = std::exchange(m_fwLostKinds, 0);
    m_waiting.pop_front();
    ShowReadiness();
    HandOut(record, pNotification);
    return QOMA_OK;
}

qoma_result CForeignClient::Descriptor(std::intptr_t *pnDescriptor)
{
    *pnDescriptor = -1;
    if (m_pfnCallback != nullptr) {
        return QOMA_E_NOT_SUPPORTED;
    }
    CPlatGuard const lock(m_mtx);
    if (m_nReadiness == -1) {
        m_nReadiness = PlatReadinessOpen();
        ShowReadiness();
    }
    *pnDescriptor = m_nReadiness;
    return m_nReadiness != -1 ? QOMA_OK : QOMA_E_NO_RESOURCES;
}

// The agent's callback thread. The slot's client lives: it waits for this thread before it ends.
DWORD CForeignClient::OnNotify(CallbackType eType, CallbackDataType *pData)
{
    CForeignClient &client = ClientAt(pData->dwClientData);
    qoma_notification const record = RecordOf(eType, *pData);
    if (client.m_pfnCallback == nullptr) {
        client.Take(record);
        return 0;
    }
    ++t_cInCallback;
    client.m_pfnCallback(client.m_pvUser, &record);
    --t_cInCallback;
    return 0;
}

void CForeignClient::Take(qoma_notification const &notification)
{
    {
        CPlatGuard const lock(m_mtx);
        if (m_waiting.size() == kcMaxWaiting) {
            NoteLost(m_waiting.front());
            m_waiting.pop_front();
        }
        try {
            m_waiting.push_back(notification);
        } catch (std::bad_alloc const &) {
            NoteLost(notification);
        }
        ShowReadiness();
    }
    m_changed.notify_one();
}

void CForeignClient::NoteLost(qoma_notification const &notification)
{
    ++m_cLost;
    m_fwLostKinds |= 1u << notification.kind;
}

void CForeignClient::NoteLink(DWORD dwLinkState)
{
    {
        CPlatGuard const lock(m_mtx);
        m_dwLinkState = dwLinkState;
        ShowReadiness();
    }
    m_changed.notify_all();
}

bool CForeignClient::IsReady() const
{
    return !m_waiting.empty() || m_dwLinkState != NO_ERROR;
}

void CForeignClient::ShowReadiness()
{
    if (m_nReadiness != -1 && m_fShownReady != IsReady()) {
        m_fShownReady = IsReady();
        PlatReadinessSet(m_nReadiness, m_fShownReady);
    }
}
