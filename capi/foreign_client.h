#pragma once
/// @file
/// The agent behind one handle of the C interface.

#include "agent/QOMANoAg.h"
#include "capi/qoma_notify.h"
#include "platform/lock.h"

#include <condition_variable>
#include <deque>

/// One agent with a callback of the client's, or with the notifications that wait to be asked for.
class CForeignClient {
public:
    /// nSlot comes back with each notification: the agent's client data is too narrow for a pointer.
    CForeignClient(qoma_callback pfnCallback, void *pvUser, DWORD nSlot);
    /// Close has run, and no thread is inside.
    ~CForeignClient();
    CForeignClient(CForeignClient const &) = delete;
    CForeignClient &operator=(CForeignClient const &) = delete;

    /// Whether this thread is inside a callback, of whichever client.
    static bool IsInCallback();

    /// The operations that need no more than the agent has.
    CNotifyAgent &Agent() { return m_agent; }

    /// @{
    /// As the functions of the interface. They and Close wait for callbacks, so none is called inside one.
    qoma_result Connect(char const *pszAddress, DWORD dwPort, int bNetwork);
    qoma_result Disconnect();
    qoma_result Restart();
    /// @}

    /// Disconnects for good, and lets everybody go who waits.
    void Close();

    /// @{
    /// As the functions of the interface.
    qoma_result Poll(DWORD dwTimeoutMs, qoma_notification *pNotification);
    qoma_result Descriptor(std::intptr_t *pnDescriptor);
    /// @}

private:
    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData);
    void Take(qoma_notification const &notification);
    DWORD LinkState() PLAT_REQUIRES(m_mtxLink);
    void NoteLink(DWORD dwLinkState) PLAT_EXCLUDES(m_mtx);
    bool IsReady() const PLAT_REQUIRES(m_mtx);
    void ShowReadiness() PLAT_REQUIRES(m_mtx);
    void NoteLost(qoma_notification const &notification) PLAT_REQUIRES(m_mtx);

    qoma_callback const m_pfnCallback;
    void *const m_pvUser;

    // Held across the agent's operations that wait for callbacks, so that m_dwLinkState tells what the last of
    // them left. The first lock; no callback ever waits for it.
    CPlatMutex m_mtxLink PLAT_ACQUIRED_BEFORE(m_mtx);
    bool m_fClosed PLAT_GUARDED_BY(m_mtxLink) = false;

    CPlatMutex m_mtx; // a leaf
    std::condition_variable m_changed;
    std::deque<qoma_notification> m_waiting PLAT_GUARDED_BY(m_mtx);
    DWORD m_cLost PLAT_GUARDED_BY(m_mtx) = 0; // before the first of those
    DWORD m_fwLostKinds PLAT_GUARDED_BY(m_mtx) = 0;
    // What a poll returns when nothing waits; NO_ERROR: it waits.
    DWORD m_dwLinkState PLAT_GUARDED_BY(m_mtx) = ERROR_NOT_CONNECTED;
    LONG_PTR m_nReadiness PLAT_GUARDED_BY(m_mtx) = -1;
    bool m_fShownReady PLAT_GUARDED_BY(m_mtx) = false;

    CNotifyAgent m_agent; // last: its threads use what stands above
};
