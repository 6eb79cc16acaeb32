// The modules as a client has them that loads what it needs and lets go of it again.

#include "device/soft_device.h"
#include "platform/module.h"
#include "platform/probe.h"
#include "platform/sync.h"
#include "tests/support/guards.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

constexpr char const *kModules[] = {"module_client", "QOMANoAg", "QOMADolC"};

// Everything that can happen at a device, again and again, while the object lives.
class CBusyHand {
public:
    explicit CBusyHand(CSoftDevice &device) : m_device(device), m_thread([this] { Run(); }) {}
    ~CBusyHand()
    {
        m_fStop = true;
        m_thread.join();
    }

private:
    void Run()
    {
        for (bool fPaper = false; !m_fStop; fPaper = !fPaper) {
            m_device.SetFeeder(fPaper);
            m_device.AnnounceFax();
            m_device.Pick(1); // false while nobody has an entry
            Sleep(1);
        }
    }

    CSoftDevice &m_device;
    std::atomic<bool> m_fStop{false};
    std::thread m_thread;
};

void UseAndUnload(WORD wPort)
{
    HMODULE const hClient = LoadLibraryA(kModules[0]);
    ASSERT_NE(hClient, nullptr) << GetLastError();
    auto const pfnConnect = PlatProcAddress<DWORD(DWORD)>(hClient, "ClientConnect");
    auto const pfnHeard = PlatProcAddress<DWORD()>(hClient, "ClientHeard");
    auto const pfnDisconnect = PlatProcAddress<DWORD()>(hClient, "ClientDisconnect");
    ASSERT_TRUE(pfnConnect != nullptr && pfnHeard != nullptr && pfnDisconnect != nullptr);

    // On a thread that ends first: on POSIX a module stays for as long as a thread lives that it has to
    // hear the end of, which is any that took a mutex in it.
    std::thread([&] {
        EXPECT_EQ(pfnConnect(wPort), 0u);
        EXPECT_TRUE(WaitFor([&] { return pfnHeard() >= 4; }));
        EXPECT_EQ(pfnDisconnect(), 0u);
    }).join();
    EXPECT_TRUE(FreeLibrary(hClient));
    for (char const *pszModule : kModules) {
        // A lookup's thread may be at its last steps.
        EXPECT_TRUE(WaitFor([&] { return GetModuleHandleA(pszModule) == nullptr; }))
            << pszModule << " stays loaded";
    }
}

} // namespace

TEST(Modules, LoadedAndUnloadedAHundredTimesUnderEventsLeaveNothing)
{
    CSoftDevice device;
    std::string strError;
    ASSERT_TRUE(device.Start(&strError)) << strError;
    CBusyHand const hand(device);

    // The system makes some threads and handles once, for the first who asks.
    UseAndUnload(device.Port());
    ASSERT_TRUE(WaitFor([&] { return device.Panel().empty(); }));
    DWORD const cThreads = PlatThreadCount();
    std::size_t const cHandles = HeldHandles();
    for (int i = 0; i < 100 && !HasFailure(); ++i) {
        UseAndUnload(device.Port());
    }
    EXPECT_TRUE(WaitFor([&] { return PlatThreadCount() <= cThreads; }))
        << PlatThreadCount() << " threads, before " << cThreads;
    EXPECT_TRUE(WaitFor([&] { return HeldHandles() <= cHandles; }))
        << HeldHandles() << " handles, before " << cHandles;
}

TEST(Modules, AThreadThatNobodyWaitsForKeepsItsModule)
{
    std::atomic<int> nStage{0};
    HMODULE const hClient = LoadLibraryA(kModules[0]);
    ASSERT_NE(hClient, nullptr) << GetLastError();
    auto const pfnLinger = PlatProcAddress<DWORD(std::atomic<int> *)>(hClient, "ClientLinger");
    ASSERT_TRUE(pfnLinger != nullptr && pfnLinger(&nStage));
    EXPECT_TRUE(FreeLibrary(hClient));
    Sleep(20); // the thread sleeps in the module meanwhile
    nStage = 1;
    EXPECT_TRUE(WaitFor([&] { return nStage == 2; }));
    EXPECT_TRUE(WaitFor([&] { return GetModuleHandleA(kModules[0]) == nullptr; }))
        << "stays loaded";
}
