#pragma once

/// @file
/// The inside of the handle table, for handle.cpp, sync.cpp and thread.cpp.

#include "platform/lock.h"
#include "platform/posix/kernel/handle.h"
#include "platform/posix/kernel/owned.h"
#include <atomic>

/// One atomic word says all that must change together. A plain compare-and-swap on it takes a free mutex
/// or sets an event and proves at the same time that the handle is still open and still of this kind.
///
///   bits  0..23  references: one of the open handle, one of each user, one of a mutex's owner
///   bit   24     the handle is open
///   bit   25     signalled: an event that is set, a mutex that is free, a thread that has ended
///   bit   26     somebody waits; changed under m_lock only
///   bits 32..39  kind
///   bits 40..50  generation
using SlotWord = std::uint64_t;

inline constexpr SlotWord kswRefs = 0xFFFFFF;
inline constexpr SlotWord kswOpen = SlotWord{1} << 24;
inline constexpr SlotWord kswSignalled = SlotWord{1} << 25;
inline constexpr SlotWord kswWaiters = SlotWord{1} << 26;
inline constexpr int kcKindShift = 32;
inline constexpr int kcGenerationShift = 40;
inline constexpr SlotWord kswKind = SlotWord{0xFF} << kcKindShift;
inline constexpr SlotWord kswGeneration = SlotWord{0x7FF} << kcGenerationShift;

inline constexpr SlotWord SlotKindBits(EHandleKind eKind)
{
    return static_cast<SlotWord>(eKind) << kcKindShift;
}

inline constexpr EHandleKind SlotKindOf(SlotWord sw)
{
    return static_cast<EHandleKind>((sw & kswKind) >> kcKindShift);
}

/// One thread asleep on a slot; lives on that thread's stack.
struct CWaitNode {
    enum : std::uint32_t { eWN_WAITING, eWN_GRANTED, eWN_RETRY };

    std::atomic<std::uint32_t> m_state{eWN_WAITING}; ///< written under the slot's m_lock
    std::uint32_t m_cLost = 0;                       ///< times it was woken and came too late
    CWaitNode *m_pPrev = nullptr;
    CWaitNode *m_pNext = nullptr;
};

/// A place in the handle table. Mutexes and events live wholly in here; other kinds have an object.
class alignas(64) CHandleSlot : public COwnedLock {
public:
    constexpr CHandleSlot() = default;

    std::atomic<SlotWord> m_word{0};
    CHandleObject *m_pObject =
        nullptr;                   ///< written while the slot is free or its last reference goes
    std::uint32_t m_nIndex = 0;    ///< set once, before the first use
    std::uint32_t m_nNextFree = 0; ///< under the table's lock
    bool m_fAbandoned = false;     ///< a mutex whose owner ended; passes with the mutex

    CPlatMutex m_lock; ///< a leaf
    CWaitNode *m_pFirstWaiter PLAT_GUARDED_BY(m_lock) = nullptr;
    CWaitNode *m_pLastWaiter PLAT_GUARDED_BY(m_lock) = nullptr;
};

inline constexpr unsigned kcIndexBits = 18;
inline constexpr unsigned kcIndexShift = 2; ///< as on Windows, handles are multiples of 4
inline constexpr unsigned kcHandleGenerationShift = kcIndexShift + kcIndexBits;
inline constexpr std::uint32_t kcSlots = 1u << kcIndexBits;
inline constexpr std::uint32_t kcSlotsPerChunk = 256;

extern std::atomic<CHandleSlot *> g_apSlotChunks[kcSlots / kcSlotsPerChunk];

/// The slot that a handle names, whatever it holds by now; null for what cannot be a handle.
inline CHandleSlot *SlotOf(HANDLE hObject)
{
    auto const nHandle = reinterpret_cast<std::uintptr_t>(hObject);
    if (nHandle >> 31 != 0) { // the two low bits are the caller's to use
        return nullptr;
    }
    std::uintptr_t const nIndex = (nHandle >> kcIndexShift) % kcSlots;
    CHandleSlot *pChunk = g_apSlotChunks[nIndex / kcSlotsPerChunk].load(std::memory_order_acquire);
    return pChunk ? pChunk + nIndex % kcSlotsPerChunk : nullptr;
}

/// Whether a slot's word is that of this very handle, open.
inline bool IsOpenAs(SlotWord sw, HANDLE hObject)
{
    auto const nGeneration = reinterpret_cast<std::uintptr_t>(hObject) >> kcHandleGenerationShift;
    return (sw & (kswOpen | kswGeneration)) ==
           (kswOpen | static_cast<SlotWord>(nGeneration) << kcGenerationShift);
}

/// A new slot with a handle for it. cRefs: 1 for the handle, 1 for each user that starts with one.
/// swState: kswSignalled or 0. Null with ERROR_NO_SYSTEM_RESOURCES when the table is full.
/// pObject: null, or destroyed with the slot (not when this fails).
CHandleSlot *SlotOpen(EHandleKind eKind, SlotWord swState, SlotWord cRefs, CHandleObject *pObject,
                      HANDLE *phObject);

/// Destroys what the slot holds and makes it free; for whoever dropped the last reference.
void SlotDestroy(CHandleSlot &slot);

/// Holds the object of whatever kind; null and ERROR_INVALID_HANDLE if there is none open.
CHandleSlot *SlotHoldAny(HANDLE hObject);

/// Waits until the slot is signalled, and takes what the kind takes. The caller holds the slot.
DWORD SlotWait(CHandleSlot &slot, DWORD dwMilliseconds);

/// Signals an event or a thread's end. The caller holds the slot.
void SlotSignal(CHandleSlot &slot);
