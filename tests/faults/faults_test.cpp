// The lives of an agent, of a link to a device and of an event manager, in which each platform call and each
// allocation fails in turn: a code that was promised or a loss that was, nothing left behind, no hang.

#include "evtmgr/g_evthost.h"
#include "platform/probe.h"
#include "platform/process.h"
#include "tests/agent/agent_fixture.h"
#include "tests/evtmgr/evtmgr_fixture.h"
#include "tests/faults/call_fault.h"
#include "tests/support/alloc_fault.h"
#include "trace/g_trace.h"

#ifdef QOMA_CALL_FAULTS
#include "devlink/link_protocol.h"
#include "dolrtl/link_client.h"
#endif

#include <algorithm>
#include <functional>
#include <set>

namespace {

using Names = std::set<std::string_view>;

constexpr std::chrono::milliseconds kBrief{5}; // for what may never come

// What a life must give back: handles, threads, sockets, keys, objects, blocks, bytes, descriptors.
std::vector<std::size_t> Holdings()
{
    return {PlatHandleCount(), PlatThreadCount(), PlatLiveSockets(), PlatLiveKeys(),
            g_cObjects,        g_cMemory,         g_cbMemory,        HeldHandles()};
}

void ExpectHoldings(std::vector<std::size_t> const &before)
{
    // Less is well: when it was counted before, a device may not have noticed yet that its client had gone.
    auto const bBack = [&] { return std::ranges::equal(Holdings(), before, std::less_equal()); };
    EXPECT_TRUE(WaitFor(bBack, std::chrono::seconds(5)))
        << testing::PrintToString(Holdings()) << ", before " << testing::PrintToString(before);
}

// Ends the process, with the name of the life, when one hangs.
class CWatchdog {
public:
    ~CWatchdog() { Feed("", /*bEnd=*/true); }
    void Feed(std::string const &strLife, bool bEnd = false)
    {
        std::lock_guard const lock(m_mx);
        m_strLife = strLife;
        m_bEnd = bEnd;
        ++m_cFed;
        m_fed.notify_one();
    }

private:
    void Watch()
    {
        std::unique_lock lock(m_mx);
        for (int cSeen = m_cFed; !m_bEnd; cSeen = m_cFed) {
            if (!m_fed.wait_for(lock, std::chrono::seconds(60), [&] { return m_cFed != cSeen; })) {
                std::fprintf(stderr, "hangs: %s\n", m_strLife.c_str());
                std::abort();
            }
        }
    }
    std::mutex m_mx; // guards what follows
    std::condition_variable m_fed;
    std::string m_strLife;
    bool m_bEnd = false;
    int m_cFed = 0;
    std::jthread m_thread{[this] { Watch(); }};
};

// Whether what is waited for has come. It may be lost once something has failed: then only a short while.
template <class Condition>
bool Comes(Condition fnDone, bool bMayBeLost)
{
    auto const briefly = [&] {
        std::this_thread::sleep_for(kBrief);
        return fnDone();
    };
    bool const bCame = WaitFor([&] {
        return fnDone() || (bMayBeLost && (CCallFault::HasFired() || CAllocFault::HasFired()));
    });
    return bCame && (fnDone() || briefly());
}

// Lives fnLife(name of the call that fails) with each use of each call failing that it makes, every
// cStride-th use after the first twelve, until a life without a fault. Returns the faults.
template <class Life>
unsigned FailEachCall(Life fnLife, unsigned cStride = 1)
{
    CWatchdog watchdog;
    fnLife(""); // what is made once and kept, a sanitizer's own thread with it
    auto const before = Holdings();
    unsigned cFaults = 0;
    for (std::size_t nCall = 0; nCall < CountOfCalls(); ++nCall) {
        unsigned const cBefore = cFaults;
        bool bFired = true;
        for (unsigned nUse = 1; bFired; nUse += nUse < 12 ? 1 : cStride) {
            std::string const strLife =
                NameOfCall(nCall) + std::string(" no. ") + std::to_string(nUse);
            SCOPED_TRACE(strLife);
            watchdog.Feed(strLife);
            CCallFault const fault(nCall, nUse);
            fnLife(NameOfCall(nCall));
            bFired = CCallFault::HasFired();
            cFaults += bFired;
            ExpectHoldings(before);
            if (testing::Test::HasFailure()) {
                return cFaults;
            }
        }
        if (cFaults != cBefore) {
            std::printf("%4u %s\n", cFaults - cBefore, NameOfCall(nCall));
        }
    }
    return cFaults;
}

bool Has(Names const &names, std::string_view call)
{
    for (std::string_view const name : names) {
        if (call.find(name) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

// ---- The agent

class AgentFaults : public testing::Test {
protected:
    static DWORD OnNotify(CallbackType eType, CallbackDataType *)
    {
        ++s_acHeard[eType];
        return 0;
    }
    bool Heard(CallbackType eType, bool bMayBeLost)
    {
        return Comes([&] { return s_acHeard[eType] > 0; }, bMayBeLost);
    }
    // As a device does when an entry was picked.
    void SendDatagram(WORD wPort)
    {
        CNoCallFaults const off;
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = ws::htons(wPort);
        to.sin_addr.s_addr = ws::htonl(0x7F000001);
        ws::sendto(m_sender, "x;KICKSEQ=1;", 12, 0, reinterpret_cast<sockaddr const *>(&to),
                   sizeof to);
    }
    void Push(int nTrapId, char const *pszValue)
    {
        try {
            m_script.Push(nTrapId, pszValue);
        } catch (std::bad_alloc const &) {
        }
    }
    // From constructor to destructor. Results are gathered in m_dwWorst; bMayBeLost: notifications may be.
    void Live(int bNetwork, bool bMayBeLost)
    {
        for (auto &cHeard : s_acHeard) {
            cHeard = 0;
        }
        CNotifyAgent agent(OnNotify, 0);
        CNotifyAgentProbe probe{agent};
        DWORD dw = 0;
        m_dwWorst = agent.Init("a", 1, bNetwork);
        if (m_dwWorst != 0) {
            return;
        }
        m_dwWorst |= agent.Add(&dw, eNF_SELECT | eNF_FAX_UPLOAD, "x");
        m_dwWorst |= agent.Modify(&dw, "x", "y");
        Push(eTrapFax, "\6");
        m_script.Raise(0);
        m_bAllHeard = Heard(eCT_FAX_UPLOAD_NOTIFY, bMayBeLost);
        if (bNetwork) {
            SendDatagram(probe.wPort);
            m_bAllHeard &= Heard(eCT_SELECT_NOTIFY, bMayBeLost);
        }
        m_dwWorst |= agent.InitiateSrvQDiscovery(&dw, m_strTarget.c_str());
        m_script.Raise(1);
        m_bAllHeard &= Heard(eCT_LINK_RECOVERED, bMayBeLost);
        if (m_script.m_cLive > 0) { // else the restart could not be had
            m_dwWorst |= agent.Add(&dw, eNF_SELECT, "x");
            m_dwWorst |= agent.Delete(dw, eNF_SELECT, "x");
            m_dwWorst |= agent.Shutdown();
        }
        m_script.Take();
    }
    void SetUp() override
    {
        CNoCallFaults const off;
        std::fclose(std::fopen(m_strTarget.c_str(), "w"));
        WSADATA data;
        ws::WSAStartup(0x0202, &data);
        m_sender = ws::socket(AF_INET, SOCK_DGRAM, 0);
    }
    void TearDown() override
    {
        ws::closesocket(m_sender);
        ws::WSACleanup();
    }

    static constexpr int eTrapFax = 7;
    static constexpr DWORD kConnected = 1247; // of Init alone
    static inline std::atomic<int> s_acHeard[5];
    CTempDir m_dir;
    std::string const m_strTarget = m_dir.File("target");
    CDolScript m_script;
    SOCKET m_sender = INVALID_SOCKET;
    DWORD m_dwWorst = 0;
    bool m_bAllHeard = false;
};

TEST_F(AgentFaults, EachCallMayFail)
{
    if (CountOfCalls() == 0) {
        GTEST_SKIP() << "calls into a DLL cannot be wrapped";
    }
    // Without a thread, its locks or a socket some notifications cannot come; nothing else loses one.
    Names const silent = {"CreateMutexA", "CreateEventA", "_beginthreadex", "recvfrom",
                          "socket",       "bind",         "getsockname",    "WSAStartup"};
    for (int const bNetwork : {0, 1}) {
        unsigned const cFaults = FailEachCall([&](std::string_view call) {
            Live(bNetwork, Has(silent, call));
            DWORD const dwPromised = Has({"CreateFileA"}, call) ? 110
                                     : Has({"WriteFile"}, call) ? 29
                                                                : 0;
            EXPECT_TRUE(m_dwWorst == 0 || (CCallFault::HasFired() && m_dwWorst == dwPromised))
                << m_dwWorst;
            EXPECT_TRUE(m_bAllHeard || Has(silent, call));
        });
        RecordProperty(bNetwork ? "network" : "local", static_cast<int>(cFaults));
        std::printf("%u faults\n", cFaults);
        EXPECT_GT(cFaults, bNetwork ? 50u : 25u);
    }
}

TEST_F(AgentFaults, EachAllocationMayFail)
{
    CCountersGuard const counters;
    for (int const bNetwork : {0, 1}) {
        auto const Life = [&] {
            Live(bNetwork, true);
            EXPECT_TRUE(m_dwWorst == 0 || m_dwWorst == 8 || m_dwWorst == 110) << m_dwWorst;
        };
        auto const cFaults = FailEachAllocation(Life, CAllocFault::eAllThreads);
        std::printf("%u faults\n", static_cast<unsigned>(cFaults));
        EXPECT_GT(cFaults, 20u);
        EXPECT_EQ(m_dwWorst, 0u) << "the last run had no fault";
        EXPECT_TRUE(m_bAllHeard);
    }
}

// Not a fault but a hard life.
TEST_F(AgentFaults, ManyLivesWithEventsInFlight)
{
    std::thread([] {}).join(); // with the first one a sanitizer starts its own
    auto const before = Holdings();
    s_acHeard[eCT_SELECT_NOTIFY] = 0;
    auto pAgent = std::make_unique<CNotifyAgent>(OnNotify, 0);
    CNotifyAgent &agent = *pAgent;
    std::atomic<bool> bStop{false};
    auto const Repeat = [&](auto fnWork) {
        return std::thread([&bStop, fnWork] {
            while (!bStop) {
                fnWork();
            }
        });
    };
    std::thread aThreads[] = {
        Repeat([&] {
            m_script.Push(1, "NETADDR=LINK0;");
            m_script.Push(4, "\2");
            m_script.Raise(0);
        }),
        Repeat([&] {
            m_script.Raise(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }),
        Repeat([&] {
            DWORD dw = 0;
            EXPECT_NE(agent.Add(&dw, eNF_SELECT | eNF_FAX_UPLOAD, "x"), kConnected);
            agent.Delete(dw, eNF_SELECT, "x");
            m_script.Take();
        }),
        Repeat([&] { EXPECT_NE(agent.ReadTraps(), kConnected); }),
    };
    for (int i = 0; i < 200; ++i) {
        DWORD const dwInit = agent.Init("a", 1, i % 2);
        EXPECT_TRUE(dwInit == 0 || dwInit == kConnected)
            << dwInit; // the restart may have come first
        DWORD const dwShutdown = agent.Shutdown();
        EXPECT_TRUE(dwShutdown == 0 || dwShutdown == 2250) << dwShutdown;
    }
    bStop = true;
    for (std::thread &thread : aThreads) {
        thread.join();
    }
    agent.Shutdown();
    pAgent.reset();
    m_script.Take();
    EXPECT_GT(s_acHeard[eCT_SELECT_NOTIFY], 0);
    ExpectHoldings(before);
}

// ---- The event manager

class ManagerFaults : public CEvtMgrTest {
protected:
    static LRESULT Take(void *, COPYDATASTRUCT const *)
    {
        ++s_cTaken;
        return 1;
    }
    // Two loads of the settings, lines to a log and a viewer, a load without faults, and the final report.
    void Live()
    {
        std::remove(m_strLog.c_str());
        s_cTaken = 0;
        g_TdMode = 0;
        m_dwInstalled = GInstallEvtMgr("mgr");
        TdConnect();
        TdSetCurrent(1, 1);
        TdLog("to the viewer");
        g_TdMode |= eTM_FILE;
        TdLog("to the file");
        LoadParameters();
        G_REPORT(eEB_INFO, eEC_NONE, eEL_TRACE, "in the middle");
        {
            CNoCallFaults const off; // what failed has done no lasting harm
            LoadParameters();
            G_REPORT(eEB_INFO, eEC_NONE, eEL_TRACE, "at the end");
        }
        EXPECT_EQ(GRemoveEvtMgr("mgr"), DWORD{eGE_OK});
    }
    void SetUp() override
    {
        if (!kIsPosix) {
            GTEST_SKIP() << "the registry there is too slow for so many loads";
        }
        std::string const strTrace = m_dir.File("trace.log");
        Reg(m_strOn + m_strAppend +
            "\n[$B\\4]\n\"Long Name\"=\"x\"\n\n[$M\\TD]\n\"State\"=dword:1\n" +
            "\n[SOFTWARE\\Norvale\\TraceDeck]\n\"Title\"=\"" + m_strTitle +
            "\"\n\"Path\"=\"/bin/true\"\n\"Auto Start\"=dword:1\n\"Level Mask\"=dword:1\n\"Module "
            "Mask\"=dword:1\n\"DebugFilePath\"=\"" +
            strTrace + "\"\n");
        m_thread = std::thread([this] {
            CNoCallFaults const off;
            HWND const hWnd = PlatCreateViewerWindow(m_strTitle.c_str(), Take, nullptr);
            m_hWnd = hWnd;
            m_hWnd.notify_one();
            PlatRunViewerWindow(hWnd);
            PlatDestroyViewerWindow(hWnd);
        });
        m_hWnd.wait(nullptr);
    }
    void TearDown() override
    {
        if (m_thread.joinable()) {
            PlatCloseViewerWindow(m_hWnd);
            m_thread.join();
        }
        g_TdMode = 0;
    }

    static inline std::atomic<int> s_cTaken{0};
    std::string const m_strTitle = "faults " + std::to_string(GetCurrentProcessId());
    std::atomic<HWND> m_hWnd{nullptr};
    std::thread m_thread;
    DWORD m_dwInstalled = 0;
};

TEST_F(ManagerFaults, EachCallMayFail)
{
    // A line is lost when what it needs cannot be had: its settings, its file.
    Names const lossy = {"RegOpenKey", "RegQueryValue", "CreateFile", "AppendFile"};
    unsigned const cFaults = FailEachCall(
        [&](std::string_view call) {
            Live();
            // Without the mutex of its queue a manager can have no handlers.
            bool const bNone = m_dwInstalled == eGE_OUT_OF_MEMORY && Has({"CreateMutex"}, call);
            EXPECT_TRUE(m_dwInstalled == eGE_OK || bNone) << m_dwInstalled;
            EXPECT_TRUE(s_cTaken > 0 || Has({"Reg", "FindWindow", "SendMessage"}, call));
            std::string const strLog = ReadLog();
            EXPECT_TRUE(bNone || Has(lossy, call) || strLog.find("in the middle") != strLog.npos)
                << strLog;
            EXPECT_TRUE(bNone || strLog.find("at the end") != strLog.npos) << strLog;
        },
        37);
    std::printf("%u faults\n", cFaults);
    EXPECT_GT(cFaults, 60u);
}

TEST_F(ManagerFaults, EachAllocationMayFail)
{
    bool bFired = true; // after the first allocations most are names of rows
    for (std::size_t nFail = 1; bFired; nFail += nFail < 12 ? 1 : 97) {
        CAllocFault const fault(nFail);
        Live();
        bFired = fault.HasFired();
        EXPECT_TRUE(m_dwInstalled == eGE_OK || m_dwInstalled == eGE_OUT_OF_MEMORY);
    }
    EXPECT_EQ(g_cEvtMgrs, 0);
}

// ---- A worker

// With one lock less it would spin, or share its list with posters as it likes.
TEST(WorkerFaults, WithoutItsLocksOrItsThreadThereIsNone)
{
    class CWorker : public CGQThread {
    public:
        CWorker() : CGQThread("worker", eTK_BEGINTHREADEX, -1, -1, 0) {}
        using CGQThread::m_hThread;
    };
    int cWithout = 0;
    unsigned const cFaults = FailEachCall([&](std::string_view) {
        CWorker const worker;
        cWithout += worker.m_hThread == INVALID_HANDLE_VALUE ? 1 : 0;
    });
    // All but the close of handles and two events, of which nobody waits for one, and the other gives no life.
    EXPECT_EQ(cWithout, CountOfCalls() != 0 ? 5 : 0) << cFaults;
}

// ---- The link to a device

#ifdef QOMA_CALL_FAULTS

extern "C" { // device_module.cpp
int FaultsDeviceStart();
void FaultsDevicePress();
void FaultsDeviceCut();
void FaultsDeviceStop();
}

class LinkFaults : public testing::Test {
protected:
    static DWORD OnEvent(DWORD dwEvent, DWORD_PTR)
    {
        ++s_acEvents[dwEvent];
        return 0;
    }
    // Connects and ends; connects, hears of a press, loses the link, hears that the device is there again. Each time
    // with another device, since the pauses before a new link to one that was lost grow.
    void Live()
    {
        FaultsDeviceStop();
        m_nPort = FaultsDeviceStart();
        auto const pShort = std::make_shared<CLinkClient>(OnEvent, 0);
        m_dwInit = pShort->Init("127.0.0.1", static_cast<DWORD>(m_nPort), eLT_NETWORK);
        pShort->End();
        s_acEvents[0] = s_acEvents[1] = 0;
        auto const pClient = std::make_shared<CLinkClient>(OnEvent, 0);
        DWORD const dwInit = pClient->Init("127.0.0.1", static_cast<DWORD>(m_nPort), eLT_NETWORK);
        m_dwInit = std::max(m_dwInit, dwInit);
        unsigned char const button[] = {5, 1, 2, 2, 2, 7, eLD_WORD, 4, 0};
        DWORD const dwTrap =
            pClient->Request(eLK_TRAP, LinkBytes(std::begin(button), std::end(button)), nullptr);
        EXPECT_TRUE(dwTrap == eDR_OK || dwTrap == eDR_LINK_LOST) << dwTrap;
        FaultsDevicePress();
        WaitingTrap trap;
        bool bTrap = false;
        if (dwTrap == eDR_OK) {
            bTrap = Comes([] { return s_acEvents[eDE_TRAP_PENDING] > 0; }, true) &&
                    pClient->ReadTrap(&trap) == eDR_OK;
        }
        EXPECT_TRUE(bTrap || CCallFault::HasFired());
        FaultsDeviceCut();
        // Without its threads it cannot go on trying, and has said so.
        bool const bNoThread = dwInit == eDR_NO_MEMORY && m_bThreadFails;
        EXPECT_TRUE(bNoThread || Comes([] { return s_acEvents[eDE_RESTART_LINK] > 0; }, false));
        EXPECT_EQ(pClient->Request(eLK_PING, {}, nullptr), DWORD{eDR_LINK_LOST});
        pClient->End();
    }
    void TearDown() override { FaultsDeviceStop(); }

    static inline std::atomic<int> s_acEvents[2];
    int m_nPort = 0;
    DWORD m_dwInit = 0;
    bool m_bThreadFails = false;
};

TEST_F(LinkFaults, EachCallMayFail)
{
    std::map<std::string_view, std::set<DWORD>> const promised = {
        {"PlatConnect", {eDR_CONNECT_REFUSED}},
        {"socket", {eDR_NO_MEMORY}},
        {"thread", {eDR_NO_MEMORY}},
        {"WSAStartup", {eDR_UNREACHABLE}},
        {"PlatSocketWait", {eDR_LINK_LOST}},
        {"send", {eDR_LINK_LOST}},
        {"recv", {eDR_LINK_LOST}}};
    unsigned const cFaults = FailEachCall([&](std::string_view call) {
        m_bThreadFails = Has({"thread"}, call);
        Live();
        bool bPromised = m_dwInit == eDR_OK;
        for (auto const &[name, codes] : promised) {
            bPromised |= Has({name}, call) && codes.contains(m_dwInit) && CCallFault::HasFired();
        }
        EXPECT_TRUE(bPromised) << m_dwInit;
    });
    std::printf("%u faults\n", cFaults);
    EXPECT_GT(cFaults, 15u);
}

#endif

} // namespace
