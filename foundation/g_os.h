/// @file
/// The counters of live objects and memory, tracked allocation, and thin wrappers around the system's
/// services. Every foundation source includes this header.
///
/// The wrappers hold no state and may be called from any thread. They turn a Win32 call into a result
/// code (g_result.h) and a handle that the caller keeps; they do not log. A handle variable that was
/// never filled or was closed holds 0. A null address of a handle variable, where one is required,
/// gives eGE_NULL_ARGUMENT from every one of them.

#pragma once

#include "foundation/g_result.h"
#include "foundation/g_site.h"
#include "platform/base.h"
#include "platform/registry.h"
#include "platform/sync.h"

#include <atomic>
#include <cstdint>

/// Counters
///
/// A diagnostic of the process: the final report of the event manager compares them with 0 and names a
/// leak; nothing else decides on them. Atomic, since threads of all kinds move them and a lost step
/// would name a leak that is none.
extern std::atomic<DWORD>
    g_cObjects; ///< live heap objects of the CGReference family, and CNode records
extern std::atomic<DWORD> g_cMemory;  ///< live tracked blocks
extern std::atomic<DWORD> g_cbMemory; ///< bytes in live tracked blocks

/// A text for a "%s" of a report: "" for null, which a name that could not be copied leaves behind.
inline char const *GTextOf(char const *psz)
{
    return psz != nullptr ? psz : "";
}

/// The counter macros. fMask is the custom category mask of the report; 0 silences it, but the counter
/// moves all the same. The name is evaluated only when the report is made.
///
/// Whoever creates a counted object writes: allocate and construct, store the pointer; if it is not
/// null, INC_OBJECT_COUNTER; else NEW_OPERATOR, with a text for what it tried to create.
#define INC_OBJECT_COUNTER(fMask, pszObjectName)                                                   \
    do {                                                                                           \
        DWORD const cObjectsNow_ = ++g_cObjects;                                                   \
        G_REPORT_MASKED(fMask, eEB_INFO, eEL_COUNTER,                                              \
                        "INC_OBJECT_COUNTER %d: %s: g_cObjects line file = %d %s",                 \
                        static_cast<int>(cObjectsNow_), GTextOf(pszObjectName), __LINE__,          \
                        __FILE__);                                                                 \
    } while (0)

/// The other way: before the object is deleted.
#define DEC_OBJECT_COUNTER(fMask, pszObjectName)                                                   \
    do {                                                                                           \
        DWORD const cObjectsNow_ = --g_cObjects;                                                   \
        G_REPORT_MASKED(fMask, eEB_INFO, eEL_COUNTER,                                              \
                        "DEC_OBJECT_COUNTER %d: %s: g_cObjects line file = %d %s",                 \
                        static_cast<int>(cObjectsNow_), GTextOf(pszObjectName), __LINE__,          \
                        __FILE__);                                                                 \
    } while (0)

/// Reports a counted object that could not be had.
#define NEW_OPERATOR(fMask, pszObjectName)                                                         \
    G_REPORT_MASKED(fMask, eEB_ERROR, eEL_ERROR, "NEW_OPERATOR: %s: NEW FAILED line file = %d %s", \
                    GTextOf(pszObjectName), __LINE__, __FILE__)

/// One tracked block of cbSize bytes came or went. nLine and pszFile name the place for the report.
#define INC_MEMSUM_COUNTER(fMask, cbSize, nLine, pszFile)                                          \
    do {                                                                                           \
        ++g_cMemory;                                                                               \
        DWORD const cbMemoryNow_ = (g_cbMemory += static_cast<DWORD>(cbSize));                     \
        G_REPORT_MASKED(fMask, eEB_INFO, eEL_COUNTER,                                              \
                        "INC_MEMSUM_COUNTER [%d:%d]: g_cbMemory line file = %d %s",                \
                        static_cast<int>(cbSize), static_cast<int>(cbMemoryNow_), (nLine),         \
                        (pszFile));                                                                \
    } while (0)

/// The other way.
#define DEC_MEMSUM_COUNTER(fMask, cbSize, nLine, pszFile)                                          \
    do {                                                                                           \
        --g_cMemory;                                                                               \
        DWORD const cbMemoryNow_ = (g_cbMemory -= static_cast<DWORD>(cbSize));                     \
        G_REPORT_MASKED(fMask, eEB_INFO, eEL_COUNTER,                                              \
                        "DEC_MEMSUM_COUNTER [%d:%d]: g_cbMemory line file = %d %s",                \
                        static_cast<int>(cbSize), static_cast<int>(cbMemoryNow_), (nLine),         \
                        (pszFile));                                                                \
    } while (0)

/// For the macros above alone: a report that a custom mask of 0 silences.
#define G_REPORT_MASKED(fMask, fBase, nLevel, ...)                                                 \
    do {                                                                                           \
        std::uint64_t const fMaskOfSite_ = (fMask);                                                \
        if (fMaskOfSite_ != 0) {                                                                   \
            G_REPORT((fBase), fMaskOfSite_, (nLevel), __VA_ARGS__);                                \
        }                                                                                          \
    } while (0)

// Tracked allocation. Any thread.

/// A block of cbSize bytes, counted in g_cMemory and g_cbMemory; or null, and no counter has moved.
/// nLine and pszFile are the call site's __LINE__ and __FILE__. Released with GMemFree and this size.
void *GMemAlloc(DWORD cbSize, int nLine, char const *pszFile);

/// Releases *ppBlock and sets it to null; nothing happens if either pointer is null. cbSize must be the
/// size that was counted when the block came, since no record of it is kept; 0 leaves the counters
/// alone. The block may also come from plain operator new followed by INC_MEMSUM_COUNTER.
void GMemFree(void **ppBlock, DWORD cbSize, int nLine, char const *pszFile);

/// The same for a pointer of any type.
template <class T>
void GMemFree(T **ppBlock, DWORD cbSize, int nLine, char const *pszFile)
{
    if (ppBlock == nullptr) {
        return;
    }
    void *pBlock = *ppBlock;
    GMemFree(&pBlock, cbSize, nLine, pszFile);
    *ppBlock = nullptr;
}

// Mutexes

/// CreateMutexA into *phMutex. eGE_OK, also when a mutex of this name existed and was opened;
/// eGE_MUTEX_EXISTS when there is no handle because the name exists; eGE_MUTEX_CREATE otherwise.
/// pszName may be null.
DWORD GMutexCreate(HANDLE *phMutex, SECURITY_ATTRIBUTES *pSecurity, BOOL fInitialOwner,
                   char const *pszName);

/// A mutex named after a file, the same for every spelling of the path that differs only in case or in
/// the direction of its slashes. pszName is changed in place, to lower case with "/", so it must be
/// the caller's own copy. The result of GMutexCreate, or of GMutexOpen if the name existed.
DWORD GMutexCreateNamed(HANDLE *phMutex, char *pszName);

/// OpenMutexA into *phMutex. eGE_OK or eGE_MUTEX_OPEN.
DWORD GMutexOpen(HANDLE *phMutex, DWORD dwAccess, BOOL fInherit, char const *pszName);

/// CloseHandle on *phMutex, which is 0 afterwards whether that worked or not, so that no handle is
/// closed twice through one variable. eGE_OK or eGE_MUTEX_CLOSE.
DWORD GMutexClose(HANDLE *phMutex);

// Events

/// CreateEventA into *phEvent. eGE_OK, also when an event of this name existed; else eGE_EVENT_CREATE.
/// pszName may be null.
DWORD GEventCreate(HANDLE *phEvent, SECURITY_ATTRIBUTES *pSecurity, BOOL fManualReset,
                   BOOL fInitialState, char const *pszName);

/// As GMutexClose, with eGE_EVENT_CLOSE.
DWORD GEventClose(HANDLE *phEvent);

// Threads and time

/// SetThreadPriority with nPriority; -1 leaves the thread alone. nPriorityClass is not acted on.
/// eGE_OK or eGE_THREAD_PRIORITY.
DWORD GThreadSetPriority(HANDLE hThread, LONG nPriorityClass, LONG nPriority);

/// Always eGE_OK.
DWORD GSleep(DWORD dwMilliseconds);

// Text

/// Lower case in place, aware of multi-byte characters. pszText must not be null; returns it.
char *GStrLower(char *pszText);

// Registry. Both return the Win32 status, 0 for success.

/// Reads one value below HKEY_LOCAL_MACHINE into pbBuffer. *pcbSize is the room in bytes on the way in
/// and the value's size on the way out. The type of the value is neither asked for nor checked. On any
/// failure the buffer holds what it held, which is how the callers' defaults survive a missing value.
LONG GRegQueryValue(char const *pszSubKey, char const *pszValueName, BYTE *pbBuffer,
                    DWORD *pcbSize);

/// Opens the subkey number dwIndex of hKey with all access. Its name is put into pszName, a buffer of
/// *pcchName characters; *pcchName becomes its length. The caller closes *phSubKey with RegCloseKey.
LONG GRegOpenEnumKey(HKEY hKey, HKEY *phSubKey, DWORD dwIndex, char *pszName, DWORD *pcchName);
