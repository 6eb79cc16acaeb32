#include "foundation/g_os.h"

#include "platform/runtime.h"
#include "platform/thread.h"

#include <new>

std::atomic<DWORD> g_cObjects{0};
std::atomic<DWORD> g_cMemory{0};
std::atomic<DWORD> g_cbMemory{0};

void *GMemAlloc(DWORD cbSize, int nLine, char const *pszFile)
{
    void *pBlock = ::operator new(cbSize, std::nothrow);
    if (pBlock == nullptr) {
        return nullptr;
    }
    INC_MEMSUM_COUNTER(eEC_NONE, cbSize, nLine, pszFile);
    return pBlock;
}

void GMemFree(void **ppBlock, DWORD cbSize, int nLine, char const *pszFile)
{
    if (ppBlock == nullptr || *ppBlock == nullptr) {
        return;
    }
    ::operator delete(*ppBlock);
    if (cbSize != 0) {
        DEC_MEMSUM_COUNTER(eEC_NONE, cbSize, nLine, pszFile);
    }
    *ppBlock = nullptr;
}

// Closes *phObject and clears it, whatever the system says.
static DWORD CloseObject(HANDLE *phObject, DWORD dwFailure)
{
    if (phObject == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    BOOL const fClosed = CloseHandle(*phObject);
    *phObject = nullptr;
    return fClosed ? eGE_OK : dwFailure;
}

DWORD GMutexCreate(HANDLE *phMutex, SECURITY_ATTRIBUTES *pSecurity, BOOL fInitialOwner,
                   char const *pszName)
{
    if (phMutex == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *phMutex = CreateMutexA(pSecurity, fInitialOwner, pszName);
    if (*phMutex != nullptr) {
        return eGE_OK;
    }
    return GetLastError() == ERROR_ALREADY_EXISTS ? eGE_MUTEX_EXISTS : eGE_MUTEX_CREATE;
}

// The multi-byte calls of the runtime take unsigned text.
static unsigned char *MultiByte(char *psz)
{
    return reinterpret_cast<unsigned char *>(psz);
}

static void TurnBackslashes(char *pszPath)
{
    unsigned char const szBackslash[] = "\\";
    unsigned char *psz = MultiByte(pszPath);
    while ((psz = _mbsstr(psz, szBackslash)) != nullptr) {
        *psz++ = '/';
    }
}

DWORD GMutexCreateNamed(HANDLE *phMutex, char *pszName)
{
    if (pszName == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    GStrLower(pszName);
    TurnBackslashes(pszName);
    DWORD const dwResult = GMutexCreate(phMutex, nullptr, /*fInitialOwner=*/0, pszName);
    if (dwResult != eGE_MUTEX_EXISTS) {
        return dwResult;
    }
    return GMutexOpen(phMutex, MUTEX_ALL_ACCESS, /*fInherit=*/0, pszName);
}

DWORD GMutexOpen(HANDLE *phMutex, DWORD dwAccess, BOOL fInherit, char const *pszName)
{
    if (phMutex == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *phMutex = OpenMutexA(dwAccess, fInherit, pszName);
    return *phMutex != nullptr ? eGE_OK : eGE_MUTEX_OPEN;
}

DWORD GMutexClose(HANDLE *phMutex)
{
    return CloseObject(phMutex, eGE_MUTEX_CLOSE);
}

DWORD GEventCreate(HANDLE *phEvent, SECURITY_ATTRIBUTES *pSecurity, BOOL fManualReset,
                   BOOL fInitialState, char const *pszName)
{
    if (phEvent == nullptr) {
        return eGE_NULL_ARGUMENT;
    }
    *phEvent = CreateEventA(pSecurity, fManualReset, fInitialState, pszName);
    if (*phEvent == nullptr && pszName != nullptr && GetLastError() == ERROR_ALREADY_EXISTS) {
        *phEvent = OpenEventA(EVENT_ALL_ACCESS, /*fInherit=*/1, pszName);
    }
    return *phEvent != nullptr ? eGE_OK : eGE_EVENT_CREATE;
}

DWORD GEventClose(HANDLE *phEvent)
{
    return CloseObject(phEvent, eGE_EVENT_CLOSE);
}

DWORD GThreadSetPriority(HANDLE hThread, LONG /*nPriorityClass*/, LONG nPriority)
{
    if (nPriority == -1) {
        return eGE_OK;
    }
    return SetThreadPriority(hThread, nPriority) ? eGE_OK : eGE_THREAD_PRIORITY;
}

DWORD GSleep(DWORD dwMilliseconds)
{
    Sleep(dwMilliseconds);
    return eGE_OK;
}

char *GStrLower(char *pszText)
{
    _mbslwr(MultiByte(pszText));
    return pszText;
}

LONG GRegQueryValue(char const *pszSubKey, char const *pszValueName, BYTE *pbBuffer, DWORD *pcbSize)
{
    HKEY hKey = nullptr;
    LONG nStatus = RegOpenKeyExA(HKEY_LOCAL_MACHINE, pszSubKey, /*dwOptions=*/0, KEY_READ, &hKey);
    if (nStatus != 0) {
        return nStatus;
    }
    nStatus = RegQueryValueExA(hKey, pszValueName, /*pdwReserved=*/nullptr, /*pdwType=*/nullptr,
                               pbBuffer, pcbSize);
    RegCloseKey(hKey);
    return nStatus;
}

LONG GRegOpenEnumKey(HKEY hKey, HKEY *phSubKey, DWORD dwIndex, char *pszName, DWORD *pcchName)
{
    LONG const nStatus =
        RegEnumKeyExA(hKey, dwIndex, pszName, pcchName, /*pdwReserved=*/nullptr,
                      /*pszClass=*/nullptr, /*pcchClass=*/nullptr, /*pLastWrite=*/nullptr);
    if (nStatus != 0) {
        return nStatus;
    }
    return RegOpenKeyExA(hKey, pszName, /*dwOptions=*/0, KEY_ALL_ACCESS, phSubKey);
}
