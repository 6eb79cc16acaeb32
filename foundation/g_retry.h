// Retry wrappers around four services that can refuse for a passing reason while a desktop starts up or
// a spooler is busy. At most 10 tries, with a sleep of 10 ms behind each that is to be repeated. The
// arguments and the result are those of the service; the result is that of the last try. Any thread.

#pragma once

#include "platform/services.h"

HRESULT RetryCoCreateInstance(REFCLSID rclsid, LPUNKNOWN pOuter, DWORD dwClsContext, REFIID riid,
                              LPVOID *ppv); // repeats on every result but 0

BOOL RetryEnumJobs(HANDLE hPrinter, DWORD nFirstJob, DWORD cJobs, DWORD nLevel, LPBYTE pbJobs,
                   DWORD cbBuffer, LPDWORD pcbNeeded,
                   LPDWORD pcReturned); // repeats on ERROR_INVALID_PARAMETER

BOOL RetryOpenPrinter(LPSTR pszPrinter, LPHANDLE phPrinter,
                      LPPRINTER_DEFAULTSA pDefaults); // repeats on ERROR_INVALID_PARAMETER

BOOL RetryPostThreadMessage(DWORD idThread, UINT nMessage, WPARAM wParam,
                            LPARAM lParam); // repeats on every failure

// The services as the wrappers call them. A test puts its own in their place.
struct CGRetryServices {
    decltype(&CoCreateInstance) m_pfnCoCreateInstance;
    decltype(&EnumJobsA) m_pfnEnumJobs;
    decltype(&OpenPrinterA) m_pfnOpenPrinter;
    decltype(&PostThreadMessageA) m_pfnPostThreadMessage;
    DWORD (*m_pfnSleep)(DWORD dwMilliseconds);
};
extern CGRetryServices g_RetryServices;
