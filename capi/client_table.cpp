#include "capi/client_table.h"

#include "capi/foreign_client.h"
#include "platform/lock.h"

#include <cstdint>
#include <new>

namespace {

constexpr unsigned kcSlotBits = 12;
constexpr DWORD knMaxGeneration = 0xFFFFF; // then from 1 again
static_assert(kcClients == 1u << kcSlotBits);

struct Slot {
    CForeignClient *pClient; // written while nobody but the writer has the slot
    DWORD nGeneration;
    DWORD cHolds; // one of the open handle, one of each CClientRef
    bool fOpen;
    DWORD nNextFree;
};

CPlatMutex g_mtxSlots; // a leaf, held for a few moves
Slot g_slots[kcClients] PLAT_GUARDED_BY(g_mtxSlots);
// The slots behind have never been used; they come first.
DWORD g_cEverUsed PLAT_GUARDED_BY(g_mtxSlots) = 0;
// Freed slots queue up, so that none is used again soon.
DWORD g_nFirstFree PLAT_GUARDED_BY(g_mtxSlots) = kcClients;
DWORD g_nLastFree PLAT_GUARDED_BY(g_mtxSlots) = kcClients;

qoma_agent HandleOf(DWORD nSlot) PLAT_REQUIRES(g_mtxSlots)
{
    std::uintptr_t const nHandle = g_slots[nSlot].nGeneration << kcSlotBits | nSlot;
    return reinterpret_cast<qoma_agent>(nHandle);
}

// kcClients when none is left.
DWORD TakeFreeSlot() PLAT_REQUIRES(g_mtxSlots)
{
    if (g_cEverUsed < kcClients) {
        return g_cEverUsed++;
    }
    DWORD const nSlot = g_nFirstFree;
    if (nSlot != kcClients) {
        g_nFirstFree = g_slots[nSlot].nNextFree;
    }
    return nSlot;
}

void PutFreeSlot(DWORD nSlot) PLAT_REQUIRES(g_mtxSlots)
{
    g_slots[nSlot].nNextFree = kcClients;
    if (g_nFirstFree == kcClients) {
        g_nFirstFree = nSlot;
    } else {
        g_slots[g_nLastFree].nNextFree = nSlot;
    }
    g_nLastFree = nSlot;
}

} // namespace

qoma_agent OpenClient(qoma_callback pfnCallback, void *pvUser, qoma_result *pResult)
{
    DWORD nSlot;
    {
        CPlatGuard const lock(g_mtxSlots);
        nSlot = TakeFreeSlot();
    }
    if (nSlot == kcClients) {
        *pResult = QOMA_E_NO_RESOURCES;
        return nullptr;
    }
    auto *const pClient = new (std::nothrow) CForeignClient(pfnCallback, pvUser, nSlot);
    CPlatGuard const lock(g_mtxSlots);
    if (pClient == nullptr) {
        PutFreeSlot(nSlot);
        *pResult = QOMA_E_NO_MEMORY;
        return nullptr;
    }
    Slot &slot = g_slots[nSlot];
    slot.pClient = pClient;
    slot.nGeneration = slot.nGeneration < knMaxGeneration ? slot.nGeneration + 1 : 1;
    slot.cHolds = 1;
    slot.fOpen = true;
    *pResult = QOMA_OK;
    return HandleOf(nSlot);
}

// Without the lock: a slot's client is there before its threads are, and until they have ended.
CForeignClient &ClientAt(DWORD nSlot) PLAT_NO_THREAD_SAFETY
{
    return *g_slots[nSlot].pClient;
}

CClientRef::CClientRef(qoma_agent agent)
{
    DWORD const nSlot = reinterpret_cast<std::uintptr_t>(agent) % kcClients;
    CPlatGuard const lock(g_mtxSlots);
    if (g_slots[nSlot].fOpen && HandleOf(nSlot) == agent) {
        ++g_slots[nSlot].cHolds;
        m_nSlot = nSlot;
    }
}

CClientRef::~CClientRef()
{
    if (m_nSlot == kcClients) {
        return;
    }
    CForeignClient *pGone = nullptr;
    {
        CPlatGuard const lock(g_mtxSlots);
        if (--g_slots[m_nSlot].cHolds == 0) {
            pGone = g_slots[m_nSlot].pClient;
        }
    }
    if (pGone != nullptr) {
        delete pGone;
        CPlatGuard const lock(g_mtxSlots);
        PutFreeSlot(m_nSlot);
    }
}

bool CClientRef::Retire()
{
    CPlatGuard const lock(g_mtxSlots);
    Slot &slot = g_slots[m_nSlot];
    bool const fFirst = slot.fOpen;
    slot.fOpen = false;
    slot.cHolds -= fFirst ? 1 : 0; // the handle's own; this reference still holds
    return fFirst;
}
