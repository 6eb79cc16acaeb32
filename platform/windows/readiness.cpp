#include "platform/readiness.h"

namespace {

HANDLE EventOf(LONG_PTR nReadiness)
{
    return reinterpret_cast<HANDLE>(nReadiness);
}

} // namespace

LONG_PTR PlatReadinessOpen()
{
    HANDLE const hEvent =
        CreateEventA(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
    return hEvent != nullptr ? reinterpret_cast<LONG_PTR>(hEvent) : -1;
}

void PlatReadinessSet(LONG_PTR nReadiness, bool fReady)
{
    fReady ? SetEvent(EventOf(nReadiness)) : ResetEvent(EventOf(nReadiness));
}

void PlatReadinessClose(LONG_PTR nReadiness)
{
    if (nReadiness != -1) {
        CloseHandle(EventOf(nReadiness));
    }
}
