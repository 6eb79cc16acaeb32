/// @file
/// Retry wrappers around four services that can refuse for a passing reason while a desktop starts up or
/// a spooler is busy. At most 10 tries, with a sleep of 10 ms behind each that is to be repeated. The
/// arguments and the result are those of the service; the result is that of the last try. Any thread.

#pragma once

#include "platform/services.h"

/// Repeats on every result but 0, so also on a success code other than S_OK.
HRESULT RetryCoCreateInstance(REFCLSID rclsid, IUnknown *pOuter, DWORD dwContext, REFIID riid,
                              void **ppObject);

/// Repeats on ERROR_INVALID_PARAMETER.
BOOL RetryEnumJobs(HANDLE hPrinter, DWORD dwFirst, DWORD cJobs, DWORD dwLevel, BYTE *pJobs,
                   DWORD cbJobs, DWORD *pcbNeeded, DWORD *pcReturned);

/// Repeats on ERROR_INVALID_PARAMETER.
BOOL RetryOpenPrinter(char *pszPrinter, HANDLE *phPrinter, PRINTER_DEFAULTSA *pDefaults);

/// Repeats on every failure.
BOOL RetryPostThreadMessage(DWORD dwThread, UINT nMessage, WPARAM wParam, LPARAM lParam);

/// The services as the wrappers call them. A test puts its own in their place.
struct CGRetryServices {
    decltype(&CoCreateInstance) m_pfnCoCreateInstance;    ///< for RetryCoCreateInstance
    decltype(&EnumJobsA) m_pfnEnumJobs;                   ///< for RetryEnumJobs
    decltype(&OpenPrinterA) m_pfnOpenPrinter;             ///< for RetryOpenPrinter
    decltype(&PostThreadMessageA) m_pfnPostThreadMessage; ///< for RetryPostThreadMessage
    DWORD (*m_pfnSleep)(DWORD dwMilliseconds);            ///< between the tries
};

/// Not changed while another thread is in a wrapper.
extern CGRetryServices g_RetryServices;
