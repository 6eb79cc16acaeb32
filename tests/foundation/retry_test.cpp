#include "foundation/g_retry.h"

#include <gtest/gtest.h>

namespace {

// Doubles of the services: each fails s_cFailures times with s_dwError, then succeeds.
int s_cFailures;
DWORD s_dwError;
int s_cCalls;
int s_cSleeps;

template <auto nSuccess, auto nFailure, class... Args>
auto WINAPI Failing(Args...)
{
    SetLastError(s_dwError);
    return ++s_cCalls <= s_cFailures ? nFailure : nSuccess;
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
        LONG const nResult = c.chCall == 'c' ? RetryCoCreateInstance({}, nullptr, 0, {}, nullptr)
                             : c.chCall == 'e'
                                 ? RetryEnumJobs(nullptr, 0, 0, 0, nullptr, 0, nullptr, nullptr)
                             : c.chCall == 'o' ? RetryOpenPrinter(nullptr, nullptr, nullptr)
                                               : RetryPostThreadMessage(0, 0, 0, 0);
        EXPECT_EQ(nResult, c.nResult) << &c - aCases;
        EXPECT_EQ(s_cCalls, c.cCalls) << &c - aCases;
        EXPECT_EQ(s_cSleeps, c.cSleeps) << &c - aCases;
    }
    g_RetryServices = services;
}
