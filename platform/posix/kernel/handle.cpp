#include "platform/posix/kernel/handle.h"

#include "platform/check.h"
#include "platform/posix/kernel/slot.h"
#include "platform/probe.h"
#include "platform/sync.h"

#include <new>

namespace {

// A free slot is not used again before so many others have been, so that a stale handle stays stale
// for long: 2047 generations of that.
constexpr std::uint32_t kcMinFree = 64;

constinit CHandleSlot g_aFirstChunk[kcSlotsPerChunk];

// Over the queue of free slots and the growth of the table; a leaf.
constinit CPlatMutex g_tableLock;
constinit std::uint32_t g_cVirgin PLAT_GUARDED_BY(g_tableLock) =
    0; // slots used at least once: the index of the next virgin one
constinit std::uint32_t g_cFree PLAT_GUARDED_BY(g_tableLock) = 0;
constinit std::uint32_t g_nFirstFree PLAT_GUARDED_BY(g_tableLock) = 0;
constinit std::uint32_t g_nLastFree PLAT_GUARDED_BY(g_tableLock) = 0;
constinit std::uint32_t g_cLive PLAT_GUARDED_BY(g_tableLock) = 0;

CHandleSlot &SlotAt(std::uint32_t nIndex)
{
    PLAT_CHECK(nIndex < kcSlots);
    CHandleSlot *pChunk = g_apSlotChunks[nIndex / kcSlotsPerChunk].load(std::memory_order_relaxed);
    PLAT_CHECK(pChunk != nullptr);
    return pChunk[nIndex % kcSlotsPerChunk];
}

bool TakeVirgin(std::uint32_t &nIndex) PLAT_REQUIRES(g_tableLock)
{
    if (g_cVirgin == kcSlots) {
        return false;
    }
    auto &chunk = g_apSlotChunks[g_cVirgin / kcSlotsPerChunk];
    if (!chunk.load(std::memory_order_relaxed)) {
        auto *pNew = new (std::nothrow) CHandleSlot[kcSlotsPerChunk];
        if (!pNew) {
            return false;
        }
        chunk.store(pNew, std::memory_order_release);
    }
    nIndex = g_cVirgin++;
    SlotAt(nIndex).m_nIndex = nIndex;
    return true;
}

bool TakeFree(std::uint32_t &nIndex) PLAT_REQUIRES(g_tableLock)
{
    if (g_cFree == 0) {
        return false;
    }
    nIndex = g_nFirstFree;
    g_nFirstFree = SlotAt(nIndex).m_nNextFree;
    --g_cFree;
    return true;
}

bool TakeIndex(std::uint32_t &nIndex)
{
    CPlatGuard guard(g_tableLock);
    bool const fTaken =
        g_cFree > kcMinFree ? TakeFree(nIndex) : TakeVirgin(nIndex) || TakeFree(nIndex);
    g_cLive += fTaken;
    return fTaken;
}

// One more reference, if the word is that of this handle and, with a kind given, of that kind.
CHandleSlot *Hold(HANDLE hObject, SlotWord swKindMask, EHandleKind eKind)
{
    if (CHandleSlot *pSlot = SlotOf(hObject)) {
        SlotWord sw = pSlot->m_word.load(std::memory_order_relaxed);
        while (IsOpenAs(sw, hObject) && (sw & swKindMask) == (SlotKindBits(eKind) & swKindMask)) {
            if (pSlot->m_word.compare_exchange_weak(sw, sw + 1, std::memory_order_acquire,
                                                    std::memory_order_relaxed)) {
                return pSlot;
            }
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

} // namespace

constinit std::atomic<CHandleSlot *> g_apSlotChunks[kcSlots / kcSlotsPerChunk]{g_aFirstChunk};

DWORD CHandleObject::Wait(DWORD /*dwMilliseconds*/)
{
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

CHandleSlot *SlotOpen(EHandleKind eKind, SlotWord swState, SlotWord cRefs, CHandleObject *pObject,
                      HANDLE *phObject)
{
    std::uint32_t nIndex;
    if (!TakeIndex(nIndex)) {
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return nullptr;
    }
    CHandleSlot &slot = SlotAt(nIndex);
    slot.m_pObject = pObject;
    slot.m_fAbandoned = false;
    SlotWord const swOld = slot.m_word.load(std::memory_order_relaxed) & kswGeneration;
    SlotWord nGeneration = ((swOld >> kcGenerationShift) + 1) & 0x7FF;
    if (nGeneration == 0) { // so that no handle is null
        nGeneration = 1;
    }
    slot.m_word.store(nGeneration << kcGenerationShift | SlotKindBits(eKind) | swState | kswOpen |
                          cRefs,
                      std::memory_order_release);
    *phObject = reinterpret_cast<HANDLE>(
        static_cast<std::uintptr_t>(nGeneration << kcHandleGenerationShift) |
        static_cast<std::uintptr_t>(nIndex) << kcIndexShift);
    return &slot;
}

void SlotDestroy(CHandleSlot &slot)
{
    PLAT_CHECK((slot.m_word.load(std::memory_order_relaxed) & (kswOpen | kswRefs | kswWaiters)) ==
               0);
    PLAT_CHECK(!slot.IsOwned());
    delete slot.m_pObject;
    slot.m_pObject = nullptr;
    slot.m_word.store(slot.m_word.load(std::memory_order_relaxed) & kswGeneration,
                      std::memory_order_release);
    CPlatGuard guard(g_tableLock);
    if (g_cFree++ == 0) {
        g_nFirstFree = slot.m_nIndex;
    } else {
        SlotAt(g_nLastFree).m_nNextFree = slot.m_nIndex;
    }
    g_nLastFree = slot.m_nIndex;
    PLAT_CHECK(g_cLive > 0 && g_cFree <= g_cVirgin);
    --g_cLive;
}

HANDLE PlatHandleCreateOf(EHandleKind eKind, std::unique_ptr<CHandleObject> pObject)
{
    HANDLE hObject = nullptr;
    if (!pObject) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else if (SlotOpen(eKind, /*swState=*/0, /*cRefs=*/1, pObject.get(), &hObject)) {
        pObject.release();
    }
    return hObject;
}

CHandleSlot *PlatHandleHold(HANDLE hObject, EHandleKind eKind)
{
    return Hold(hObject, kswKind, eKind);
}

CHandleSlot *SlotHoldAny(HANDLE hObject)
{
    return Hold(hObject, 0, eHK_NONE);
}

CHandleObject *PlatHandleObject(CHandleSlot *pSlot)
{
    return pSlot->m_pObject;
}

void PlatHandleRelease(CHandleSlot *pSlot)
{
    SlotWord const swBefore = pSlot->m_word.fetch_sub(1, std::memory_order_acq_rel);
    PLAT_CHECK((swBefore & kswRefs) != 0);
    if ((swBefore & kswRefs) == 1) {
        SlotDestroy(*pSlot);
    }
}

BOOL WINAPI CloseHandle(HANDLE hObject)
{
    if (hObject == INVALID_HANDLE_VALUE) {
        return TRUE;
    }
    CHandleSlot *pSlot = SlotOf(hObject);
    SlotWord sw = pSlot ? pSlot->m_word.load(std::memory_order_relaxed) : 0;
    do {
        if (!IsOpenAs(sw, hObject)) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
    } while (!pSlot->m_word.compare_exchange_weak(sw, sw & ~kswOpen, std::memory_order_acquire,
                                                  std::memory_order_relaxed));
    // The handle's own reference keeps the object for these two steps.
    if (pSlot->m_pObject) {
        pSlot->m_pObject->OnClose();
    }
    PlatHandleRelease(pSlot);
    return TRUE;
}

DWORD PlatHandleCount()
{
    CPlatGuard guard(g_tableLock);
    return g_cLive;
}
