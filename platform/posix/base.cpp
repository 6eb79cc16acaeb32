#include "platform/base.h"

namespace {

thread_local constinit DWORD t_dwLastError = 0;

} // namespace

DWORD WINAPI GetLastError()
{
    return t_dwLastError;
}

void WINAPI SetLastError(DWORD dwError)
{
    t_dwLastError = dwError;
}
