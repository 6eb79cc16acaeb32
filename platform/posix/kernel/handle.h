#pragma once

#include "platform/base.h"
#include <memory>
#include <utility>

// The handle table of the POSIX layer.
//
// A handle is a slot number with the slot's generation, a value of 31 bits that is a multiple of 4: it
// is never null or INVALID_HANDLE_VALUE, and a handle that was closed is told from the one that has its
// slot now, until the generation comes round 2047 uses of that slot later (free slots queue up, so
// that takes a quarter of a million handles). Slots never move and are never freed, hence index, generation, kind
// and reference count are looked at and changed in one atomic word, with no lock.
//
// A family adds a kind of object so:
//   1. a number in EHandleKind;
//   2. a class derived from CHandleObject with `static constexpr EHandleKind kKind`;
//   3. HANDLE h = PlatHandleCreate(std::make_unique<CFileObject>(...)) where the handle is made;
//   4. CHandleRef<CFileObject> file(h); if (!file) return FALSE; where it is used: the error is set
//      already, and the object lives as long as `file`, also when CloseHandle comes meanwhile.
// CloseHandle is the same for all. The object is destroyed when the handle is closed and the last
// CHandleRef is gone, on whichever thread that is.

enum EHandleKind : std::uint8_t {
    eHK_NONE, ///< a free slot
    eHK_MUTEX,
    eHK_EVENT_AUTO,
    eHK_EVENT_MANUAL,
    eHK_THREAD,
    eHK_NAMED_MUTEX,
    eHK_NAMED_EVENT,
    eHK_FILE,
    eHK_PROCESS,
    eHK_PRINTER,
    eHK_OTHER,
};

class CHandleObject {
public:
    CHandleObject() = default;
    virtual ~CHandleObject() = default;
    CHandleObject(CHandleObject const &) = delete;
    CHandleObject &operator=(CHandleObject const &) = delete;

    /// WaitForSingleObject on this object: a WAIT_ value, WAIT_FAILED with the last error set. Called
    /// with the object held, by any number of threads at a time. Here: ERROR_INVALID_HANDLE.
    virtual DWORD Wait(DWORD dwMilliseconds);

    /// The handle has just been closed, other threads may still be inside the object. Called once.
    virtual void OnClose() {}
};

/// Puts an object into the table. Null with ERROR_NOT_ENOUGH_MEMORY for a null object and
/// ERROR_NO_SYSTEM_RESOURCES when the table is full (the object is then destroyed).
HANDLE PlatHandleCreateOf(EHandleKind eKind, std::unique_ptr<CHandleObject> pObject);

template <class T>
HANDLE PlatHandleCreate(std::unique_ptr<T> pObject)
{
    return PlatHandleCreateOf(T::kKind, std::move(pObject));
}

class CHandleSlot;

/// @{
/// The untyped half of CHandleRef. Null and ERROR_INVALID_HANDLE for what is not an open handle of that
/// kind; otherwise the slot, held until PlatHandleRelease.
CHandleSlot *PlatHandleHold(HANDLE hObject, EHandleKind eKind);
CHandleObject *PlatHandleObject(CHandleSlot *pSlot);
void PlatHandleRelease(CHandleSlot *pSlot);
/// @}

/// Keeps the object behind a handle alive while in use.
template <class T>
class CHandleRef {
public:
    explicit CHandleRef(HANDLE hObject) : m_pSlot(PlatHandleHold(hObject, T::kKind)) {}
    ~CHandleRef()
    {
        if (m_pSlot) {
            PlatHandleRelease(m_pSlot);
        }
    }
    CHandleRef(CHandleRef const &) = delete;
    CHandleRef &operator=(CHandleRef const &) = delete;

    explicit operator bool() const { return m_pSlot != nullptr; }
    T *operator->() const { return static_cast<T *>(PlatHandleObject(m_pSlot)); }
    T &operator*() const { return *operator->(); }

private:
    CHandleSlot *m_pSlot;
};
