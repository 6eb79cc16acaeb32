#pragma once
/// @file
/// The agents behind the handles.
///
/// A handle is a slot number with the slot's generation: what is no open handle is told from one without being
/// followed, and a handle that was destroyed from the one that has its slot now, until that slot has been used a
/// million times more. Slots never move; they hold nothing that would have to be torn down, so that a client that
/// forgets an agent may unload the module all the same.

#include "capi/qoma_notify.h"
#include "platform/base.h"

class CForeignClient;

/// Agents that a process can have at a time.
constexpr DWORD kcClients = 4096;

/// Makes a client of the callback in a free slot. Null with QOMA_E_NO_MEMORY or QOMA_E_NO_RESOURCES in *pResult.
qoma_agent OpenClient(qoma_callback pfnCallback, void *pvUser, qoma_result *pResult);

/// The client in a slot that it told itself, for its own threads: they end before it does, so nothing is asked.
CForeignClient &ClientAt(DWORD nSlot);

/// Keeps the client behind a handle alive while in use.
class CClientRef {
public:
    /// Of an open handle; of anything else it is false.
    explicit CClientRef(qoma_agent agent);
    /// The client itself goes with the last reference after Retire.
    ~CClientRef();
    CClientRef(CClientRef const &) = delete;
    CClientRef &operator=(CClientRef const &) = delete;

    /// Whether there is a client, without which none of what follows is called.
    explicit operator bool() const { return m_nSlot != kcClients; }
    /// The client, for as long as this reference lives.
    CForeignClient *operator->() const { return &ClientAt(m_nSlot); }

    /// The handle is none from here on. False when another thread was first.
    bool Retire();

private:
    DWORD m_nSlot = kcClients;
};
