#include "foundation/g_os.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"

TEST(GMem, AllocAndFree_MoveTheCountersTogether)
{
    CCountersGuard guard;
    char *psz = static_cast<char *>(GMemAlloc(100, 1, "f"));
    EXPECT_EQ(g_cMemory, guard.m_cMemory + 1);
    EXPECT_EQ(g_cbMemory, guard.m_cbMemory + 100);
    GMemFree(&psz, 100, 2, "f");
    GMemFree(&psz, 100, 3, "f"); // the cleared pointer makes the second call harmless
    GMemFree(nullptr, 100, 4, "f");
}

TEST(GMutexAndGEvent, Named_AreSharedByNameAndClosedOnceByVariable)
{
    std::string strPath = "C:\\Logs\\\\QOMA\\" + std::to_string(std::random_device{}());
    std::string const strName = "c:/logs//qoma/" + strPath.substr(14);
    char const *const pszName = strName.c_str();
    DWORD const cHandles = PlatHandleCount();
    HANDLE hFirst = nullptr;
    HANDLE hSecond = nullptr;
    EXPECT_EQ(GMutexOpen(&hFirst, MUTEX_ALL_ACCESS, 0, pszName), eGE_MUTEX_OPEN);
    EXPECT_EQ(GMutexCreateNamed(&hFirst, strPath.data()), eGE_OK);
    EXPECT_EQ(strPath, strName); // one name for every spelling of a path
    EXPECT_EQ(GEventCreate(&hSecond, nullptr, 0, 0, pszName), eGE_EVENT_CREATE); // a mutex has it
    EXPECT_EQ(GMutexOpen(&hSecond, MUTEX_ALL_ACCESS, 0, pszName), eGE_OK);
    EXPECT_EQ(GMutexClose(&hSecond), eGE_OK);
    EXPECT_EQ(GMutexClose(&hFirst), eGE_OK);
    EXPECT_EQ(GMutexClose(&hFirst), eGE_MUTEX_CLOSE);
    EXPECT_EQ(GEventCreate(&hFirst, nullptr, /*fManualReset=*/0, 1, pszName), eGE_OK);
    EXPECT_EQ(GEventCreate(&hSecond, nullptr, 0, 0, pszName), eGE_OK);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_EQ(GEventClose(&hFirst), eGE_OK);
    EXPECT_EQ(GEventClose(&hFirst), eGE_EVENT_CLOSE);
    EXPECT_EQ(GEventClose(&hSecond), eGE_OK);
    EXPECT_TRUE(!kIsPosix || PlatHandleCount() == cHandles) << "opened twice";
}

TEST(GReg, EnumeratedKeysAreOpenedByTheirNumber)
{
    CTempDir const dir;
    CRegFile reg(dir.File("test.reg"));
    reg.Write("\n[A]\n\n[A\\first]\n\"n\"=dword:7\n");
    HKEY hKey = nullptr;
    HKEY hFirst = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "A", 0, KEY_READ, &hKey), 0);
    char szName[6] = "";
    DWORD cch = sizeof szName;
    EXPECT_EQ(GRegOpenEnumKey(hKey, &hFirst, 0, szName, &cch), 0);
    EXPECT_EQ(std::string(szName, cch), "first");
    EXPECT_EQ(RegQueryValueExA(hFirst, "n", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(RegCloseKey(hFirst), 0);
    EXPECT_EQ(GRegOpenEnumKey(hKey, &hFirst, 1, szName, &(cch = sizeof szName)),
              LONG{ERROR_NO_MORE_ITEMS});
    EXPECT_EQ(RegCloseKey(hKey), 0);
}
