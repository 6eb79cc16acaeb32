#include "platform/services.h"

// Nothing else may live here: a program that puts its own calls in the place of these must not miss
// anything from this file.

HRESULT CoCreateInstance(REFCLSID, IUnknown *, DWORD, REFIID, void **ppObject)
{
    if (ppObject == nullptr) {
        return E_POINTER;
    }
    *ppObject = nullptr;
    return REGDB_E_CLASSNOTREG;
}

BOOL EnumJobsA(HANDLE, DWORD, DWORD, DWORD, BYTE *, DWORD, DWORD *pcbNeeded, DWORD *pcReturned)
{
    if (pcbNeeded != nullptr) {
        *pcbNeeded = 0;
    }
    if (pcReturned != nullptr) {
        *pcReturned = 0;
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

BOOL OpenPrinterA(char *, HANDLE *phPrinter, PRINTER_DEFAULTSA *)
{
    if (phPrinter == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *phPrinter = nullptr;
    SetLastError(ERROR_INVALID_PRINTER_NAME);
    return FALSE;
}

BOOL PostThreadMessageA(DWORD, UINT, WPARAM, LPARAM)
{
    SetLastError(ERROR_INVALID_THREAD_ID);
    return FALSE;
}
