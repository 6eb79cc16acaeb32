// The agent's life: construction, connection, restart, end.
#include "agent/QOMANoAg.h"

#include <ctime>
#include <memory>
#include <new>

#include "agent/agent_copies.h"
#include "agent/agent_lock.h"
#include "agent/callback_qthread.h"
#include "agent/dol_callback.h"
#include "agent/dol_objects.h"
#include "agent/trap_reader.h"
#include "dolrtl/QOMADolC.h"
#include "platform/runtime.h"

namespace {

constexpr DWORD kcbDeviceId = 260;
constexpr char kDeviceLine[] = "VELLUMAX"; // somewhere in the identification, in any case

// Whether the identification, cbId bytes at the head of a terminated buffer, names our product line.
bool NamesDeviceLine(unsigned char *pszId, DWORD cbId)
{
    for (DWORD i = 0; i < cbId; ++i) {
        pszId[i] = static_cast<unsigned char>(_mbctoupper(pszId[i]));
    }
    return _mbsstr(pszId, reinterpret_cast<unsigned char const *>(kDeviceLine)) != nullptr;
}

} // namespace

CNotifyAgent::CNotifyAgent(NotifyCallbackFn pfnCallback, DWORD dwClientData)
    : m_pfnCallback(pfnCallback), m_dwClientData(dwClientData)
{
    crt::srand(static_cast<unsigned>(std::time(nullptr)));
    CompleteDolObjects();
    m_hMutex = CreateMutexA(/*pSecurity=*/nullptr, /*bInitialOwner=*/0, /*pszName=*/nullptr);
}

CNotifyAgent::CNotifyAgent(CNotifyAgent const &other) : m_pfnCallback(nullptr), m_dwClientData(0)
{
    CAgentCopies::Copy(*this, other);
}

CNotifyAgent &CNotifyAgent::operator=(CNotifyAgent const &other)
{
    if (this == &other) {
        return *this;
    }
    Shutdown();
    CAgentCopies::CloseMutex(*this);
    CAgentCopies::Copy(*this, other);
    return *this;
}

CNotifyAgent::~CNotifyAgent()
{
    m_pfnCallback = nullptr;
    m_dwClientData = 0;
    CAgentCopies::CloseMutex(*this);
}

DWORD CNotifyAgent::IsDeviceInitialized()
{
    if (m_pDolRtl != nullptr) {
        return ERROR_ALREADY_INITIALIZED;
    }
    return m_bDeviceLineOk ? ERROR_NOT_CONNECTED : ERROR_INVALID_OWNER;
}

DWORD CNotifyAgent::Init(char const *pszAddress, DWORD dwPort, int bNetwork)
{
    CAgentLock const lock(m_hMutex);
    DWORD const dwState = IsDeviceInitialized();
    if (!lock.IsHeld()) {
        return WithoutLink(dwState);
    }
    if (dwState == ERROR_ALREADY_INITIALIZED) {
        return dwState;
    }
    DWORD dwResult = CatchNoMemory([&]() -> DWORD {
        if (bNetwork) {
            StartupWinSock();
        }
        m_bNetwork = bNetwork ? 1 : 0;
        StartupSupportThreads();
        m_pDolRtl = new (std::nothrow) CDolRtl(DolRtlCallback, reinterpret_cast<DWORD_PTR>(this));
        return m_pDolRtl != nullptr ? NO_ERROR : ERROR_NOT_ENOUGH_MEMORY;
    });
    if (dwResult != NO_ERROR) { // neither Shutdown nor a later Init would end what runs by now
        ShutdownSupportThreads();
        ShutdownWinSock();
        CAgentCopies::ForgetLink(*this);
        return dwResult;
    }
    DWORD const dwTransport = bNetwork ? eLT_NETWORK : eLT_LOCAL;
    bool const bNoPort = bNetwork && dwPort == kNotifyNoPort;
    dwResult = m_pDolRtl.load()->Init(pszAddress, bNoPort ? 0 : dwPort, dwTransport);
    if (!DeviceIsAVellumax()) {
        Shutdown();
        return IsDeviceInitialized();
    }
    return dwResult;
}

// The default is yes: a device that does not identify itself is accepted.
int CNotifyAgent::DeviceIsAVellumax()
{
    m_bDeviceLineOk = 1;
    std::unique_ptr<unsigned char[]> const pszId(new (std::nothrow) unsigned char[kcbDeviceId]());
    if (pszId == nullptr) {
        return 1;
    }
    DWORD cbId = 0;
    DWORD const dwResult = m_pDolRtl.load()->GetDeviceId(pszId.get(), kcbDeviceId, &cbId);
    pszId[kcbDeviceId - 1] = '\0'; // whatever the library did, the search ends in the buffer
    if (dwResult == NO_ERROR && cbId > 0) {
        DWORD const cbText = cbId < kcbDeviceId ? cbId : kcbDeviceId;
        m_bDeviceLineOk = NamesDeviceLine(pszId.get(), cbText) ? 1 : 0;
    }
    return m_bDeviceLineOk;
}

DWORD CNotifyAgent::Shutdown()
{
    if (CCallbackQThread::Calling() == this) {
        return ERROR_NOT_SUPPORTED; // it would wait for this thread
    }
    CAgentLock const lock(m_hMutex);
    DWORD const dwState = IsDeviceInitialized();
    if (!lock.IsHeld() || dwState != ERROR_ALREADY_INITIALIZED) {
        return WithoutLink(dwState);
    }
    if (CAgentCopies::LetGo(*this)) {
        return NO_ERROR;
    }
    CAgentEnding const ending(m_hMutex, this);
    if (!ending.MayWait()) {
        return ERROR_NOT_SUPPORTED;
    }
    CDolRtl *const pDolRtl = m_pDolRtl.exchange(nullptr); // first, so that no further drain begins
    CAgentCopies::Disconnect(pDolRtl);
    WaitForDrains(pDolRtl);
    delete pDolRtl;
    DWORD dwResult = ShutdownSupportThreads();
    if (dwResult == NO_ERROR && m_bNetwork) {
        dwResult = ShutdownWinSock();
    }
    CAgentCopies::ForgetLink(*this);
    return dwResult;
}

// Normally on the library's thread, inside its callback. Another thread's Shutdown may hold the mutex
// and wait for this very callback: then this one gives up, as the link that it was to restart is gone.
//
// The mutex is kept over both halves: a client whose Shutdown came between them would be told that the
// agent is not connected, destroy it, and have the second half connect what is no more.
DWORD CNotifyAgent::RestartDolRtl()
{
    if (CCallbackQThread::Calling() == this) {
        return ERROR_NOT_SUPPORTED; // Shutdown would wait for this thread
    }
    auto const State = [this] { return IsDeviceInitialized(); };
    return RunConnected(m_hMutex, State, [&]() -> DWORD {
        CDolRtl *const pDolRtl = m_pDolRtl;
        CString const strAddress(pDolRtl->GetAddress());
        DWORD const dwPort = pDolRtl->GetBridgePort();
        int const bNetwork = m_bNetwork;
        DWORD dwResult = Shutdown();
        if (dwResult != NO_ERROR) {
            return dwResult;
        }
        dwResult = Init(strAddress, dwPort, bNetwork);
        if (dwResult == NO_ERROR) {
            CCallbackQThread::PostTo(m_pCallbackQThread, eCT_LINK_RECOVERED, 0, 0, nullptr, nullptr,
                                     nullptr);
        }
        return dwResult;
    });
}
