#include "foundation/g_retry.h"

#include "foundation/g_os.h"

CGRetryServices g_RetryServices = {CoCreateInstance, EnumJobsA, OpenPrinterA, PostThreadMessageA,
                                   GSleep};

namespace {

int const c_cTries = 10;
DWORD const c_dwPause = 10; // ms, also behind the last try

// Makes the call until fnAgain says that its result is final, and returns the last result.
template <class Call, class Again>
auto Retry(Call fnCall, Again fnAgain)
{
    auto result = fnCall();
    for (int cTries = 1; fnAgain(result); ++cTries) {
        g_RetryServices.m_pfnSleep(c_dwPause);
        if (cTries == c_cTries) {
            break;
        }
        result = fnCall();
    }
    return result;
}

bool IsBadParameter(BOOL fDone)
{
    return !fDone && GetLastError() == ERROR_INVALID_PARAMETER;
}

} // namespace

HRESULT RetryCoCreateInstance(REFCLSID rclsid, IUnknown *pOuter, DWORD dwContext, REFIID riid,
                              void **ppObject)
{
    return Retry(
        [&] {
            return g_RetryServices.m_pfnCoCreateInstance(rclsid, pOuter, dwContext, riid, ppObject);
        },
        [](HRESULT hr) { return hr != 0; });
}

BOOL RetryEnumJobs(HANDLE hPrinter, DWORD dwFirst, DWORD cJobs, DWORD dwLevel, BYTE *pJobs,
                   DWORD cbJobs, DWORD *pcbNeeded, DWORD *pcReturned)
{
    return Retry(
        [&] {
            return g_RetryServices.m_pfnEnumJobs(hPrinter, dwFirst, cJobs, dwLevel, pJobs, cbJobs,
                                                 pcbNeeded, pcReturned);
        },
        IsBadParameter);
}

BOOL RetryOpenPrinter(char *pszPrinter, HANDLE *phPrinter, PRINTER_DEFAULTSA *pDefaults)
{
    return Retry([&] { return g_RetryServices.m_pfnOpenPrinter(pszPrinter, phPrinter, pDefaults); },
                 IsBadParameter);
}

BOOL RetryPostThreadMessage(DWORD dwThread, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    return Retry(
        [&] { return g_RetryServices.m_pfnPostThreadMessage(dwThread, nMessage, wParam, lParam); },
        [](BOOL fPosted) { return !fPosted; });
}
