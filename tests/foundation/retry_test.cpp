#include "foundation/g_retry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>
#include <vector>

namespace {

using Words = std::vector<std::uintptr_t>;

// Doubles of the services: each fails s_cFailures times with s_dwError, then succeeds.
int s_cFailures;
DWORD s_dwError;
int s_cCalls;
int s_cSleeps;
Words s_arguments; // of the last call

template <class T>
std::uintptr_t WordOf(T const &argument)
{
    if constexpr (std::is_same_v<T, GUID>) {
        return argument.Data1;
    } else if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<std::uintptr_t>(argument);
    } else {
        return static_cast<std::uintptr_t>(argument);
    }
}

template <auto nSuccess, auto nFailure, class... Args>
auto WINAPI Failing(Args... arguments)
{
    s_arguments = {WordOf(arguments)...};
    SetLastError(s_dwError);
    return ++s_cCalls <= s_cFailures ? nFailure : nSuccess;
}

// A pointer that is only handed on.
template <class T>
T *At(std::uintptr_t nAddress)
{
    return reinterpret_cast<T *>(nAddress);
}

DWORD CountedSleep(DWORD dwMilliseconds)
{
    s_cSleeps += dwMilliseconds == 10 ? 1 : 100;
    return 0;
}

} // namespace

TEST(GRetry, Wrappers_TryTenTimesAndOnlyForTheirReason)
{
    CGRetryServices const services = g_RetryServices;

    // 1 is a success code of CoCreateInstance, but not S_OK.
    g_RetryServices = {Failing<HRESULT{0}, HRESULT{1}>, Failing<BOOL{1}, BOOL{0}>,
                       Failing<BOOL{1}, BOOL{0}>, Failing<BOOL{1}, BOOL{0}>, CountedSleep};
    struct {
        char chCall;
        int cFailures;
        DWORD dwError;
        int nResult, cCalls, cSleeps;
    } const aCases[] = {{'c', 0, 0, 0, 1, 0},   {'c', 3, 0, 0, 4, 3},     {'c', 99, 0, 1, 10, 10},
                        {'e', 99, 5, 0, 1, 0},  {'e', 99, 87, 0, 10, 10}, {'o', 9, 87, 1, 10, 9},
                        {'o', 99, 5, 0, 1, 0},  {'o', 99, 87, 0, 10, 10}, {'p', 0, 87, 1, 1, 0},
                        {'p', 99, 5, 0, 10, 10}};
    for (auto const &c : aCases) {
        s_cFailures = c.cFailures;
        s_dwError = c.dwError;
        s_cCalls = s_cSleeps = 0;
        LONG const nResult =
            c.chCall == 'c' ? RetryCoCreateInstance({1, 0, 0, {}}, At<IUnknown>(2), 3,
                                                    {4, 0, 0, {}}, At<void *>(5))
            : c.chCall == 'e'
                ? RetryEnumJobs(At<void>(1), 2, 3, 4, At<BYTE>(5), 6, At<DWORD>(7), At<DWORD>(8))
            : c.chCall == 'o'
                ? RetryOpenPrinter(At<char>(1), At<HANDLE>(2), At<PRINTER_DEFAULTSA>(3))
                : RetryPostThreadMessage(1, 2, 3, 4);
        Words const all{1, 2, 3, 4, 5, 6, 7, 8};
        EXPECT_TRUE(std::equal(s_arguments.begin(), s_arguments.end(), all.begin()))
            << testing::PrintToString(s_arguments);
        EXPECT_EQ(nResult, c.nResult) << &c - aCases;
        EXPECT_EQ(s_cCalls, c.cCalls) << &c - aCases;
        EXPECT_EQ(s_cSleeps, c.cSleeps) << &c - aCases;
    }
    g_RetryServices = services;
}
