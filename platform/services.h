#pragma once

/// @file
/// Services that exist on Windows only, for wrappers that are offered to hosts there. Elsewhere each
/// call fails the way Windows does when the thing asked for is not there. Their bodies stand in a
/// file of their own, so that a program can put its own in their place when it is linked.

#include "platform/base.h"
#include "platform/com.h"

#ifdef _WIN32

#include <winspool.h>
#include <winuser.h>

#else

struct PRINTER_DEFAULTSA;

/// As Win32 for an unknown class: *ppObject is null, the result REGDB_E_CLASSNOTREG; E_POINTER
/// without ppObject.
HRESULT CoCreateInstance(REFCLSID rclsid, IUnknown *pOuter, DWORD dwContext, REFIID riid,
                         void **ppObject);

/// As Win32 for a handle that is no printer: FALSE with ERROR_INVALID_HANDLE; *pcbNeeded and
/// *pcReturned are 0.
BOOL EnumJobsA(HANDLE hPrinter, DWORD dwFirst, DWORD cJobs, DWORD dwLevel, BYTE *pJobs,
               DWORD cbJobs, DWORD *pcbNeeded, DWORD *pcReturned);

/// As Win32 for a name that is no printer: FALSE with ERROR_INVALID_PRINTER_NAME, *phPrinter null;
/// ERROR_INVALID_PARAMETER without phPrinter.
BOOL OpenPrinterA(char *pszPrinter, HANDLE *phPrinter, PRINTER_DEFAULTSA *pDefaults);

/// As Win32 for a thread without a message queue: FALSE with ERROR_INVALID_THREAD_ID.
BOOL PostThreadMessageA(DWORD dwThread, UINT nMessage, WPARAM wParam, LPARAM lParam);

#endif
