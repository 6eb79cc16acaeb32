#include "tests/faults/call_fault.h"

#include "platform/file.h"
#include "platform/module.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/runtime.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/window.h"

#include <atomic>
#include <iterator>
#include <string_view>
#include <system_error>
#include <thread>

namespace {

#define FAULT(symbol, ...) #symbol,
constexpr char const *kaszCalls[] = {
#include "calls.inc"
    "std::thread"};
#undef FAULT

constexpr std::size_t kNone = ~std::size_t{0};
std::atomic<std::size_t> s_nArmed{kNone};
std::atomic<unsigned> s_cLeft{0};
std::atomic<bool> s_bFired{false};
thread_local int t_cOff = 0;

[[maybe_unused]] bool MustFail(std::size_t nCall)
{
    if (t_cOff != 0 || s_nArmed != nCall || --s_cLeft != 0) {
        return false;
    }
    s_nArmed = kNone;
    s_bFired = true;
    return true;
}

[[maybe_unused]] constexpr std::size_t IndexOf(std::string_view symbol)
{
    std::size_t n = 0;
    while (kaszCalls[n] != symbol) {
        ++n;
    }
    return n;
}

using ThreadFn [[maybe_unused]] = unsigned (*)(void *);

} // namespace

std::size_t CountOfCalls()
{
    return kIsPosix ? std::size(kaszCalls) : 0;
}

char const *NameOfCall(std::size_t nCall)
{
    return kaszCalls[nCall];
}

CCallFault::CCallFault(std::size_t nCall, unsigned nUse)
{
    s_bFired = false;
    s_cLeft = nUse;
    s_nArmed = nCall;
}

CCallFault::~CCallFault()
{
    s_nArmed = kNone;
    s_bFired = false;
}

bool CCallFault::HasFired()
{
    return s_bFired;
}

CNoCallFaults::CNoCallFaults()
{
    ++t_cOff;
}

CNoCallFaults::~CNoCallFaults()
{
    --t_cOff;
}

extern "C" {

#define FAULT(symbol, result, parameters, arguments, failure, error, done)                         \
    result __real_##symbol parameters;                                                             \
    result __wrap_##symbol parameters                                                              \
    {                                                                                              \
        constexpr std::size_t nCall = IndexOf(#symbol);                                            \
        if (!MustFail(nCall)) {                                                                    \
            return __real_##symbol arguments;                                                      \
        }                                                                                          \
        if (done) {                                                                                \
            __real_##symbol arguments;                                                             \
        }                                                                                          \
        SetLastError(error);                                                                       \
        return failure;                                                                            \
    }
#include "calls.inc"
#undef FAULT

#ifdef QOMA_CALL_FAULTS
// std::thread::_M_start_thread of this C++ library; what is passed by value arrives as an address.
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread *pSelf, void *pState, void (*pfnDepend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread *pSelf, void *pState, void (*pfnDepend)())
{
    if (MustFail(std::size(kaszCalls) - 1)) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
        pSelf, pState, pfnDepend);
}
#endif
}
