#include "platform/services.h"

#include <gtest/gtest.h>

TEST(Services, WhatIsNotThereFailsByItsOwnNumber)
{
    char szPrinter[] = "no such printer 4711";
    HANDLE hPrinter = nullptr;
    SetLastError(0xdeadbeef);
    EXPECT_FALSE(OpenPrinterA(szPrinter, &hPrinter, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PRINTER_NAME));
    EXPECT_EQ(hPrinter, nullptr);

    GUID const unknown = {0x4711, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    int nPoison = 0;
    void *pObject = &nPoison;
    EXPECT_LT(CoCreateInstance(unknown, nullptr, 1, unknown, &pObject), 0);
    EXPECT_EQ(pObject, nullptr);

    if (!kIsPosix) {
        GTEST_SKIP() << "Wine has other numbers for the rest";
    }
    SetLastError(0xdeadbeef);
    DWORD cbNeeded = 1, cReturned = 1;
    EXPECT_FALSE(EnumJobsA(nullptr, 0, 1, 1, nullptr, 0, &cbNeeded, &cReturned));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

    SetLastError(0xdeadbeef);
    EXPECT_FALSE(PostThreadMessageA(0xfffffff0, 0x400, 0, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_THREAD_ID));
}
