// What every test of the agent needs: a script for the double of the access library, a client that
// records its notifications, and a look into the agent.
#pragma once

#include "agent/callback_qthread.h"
#include "agent/QOMANoAg.h"
#include "dolrtl/QOMADolC.h"
#include "tests/support/guards.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

using Lines = std::vector<std::string>;
using Counts = std::vector<DWORD>;

class CDolRtlImpl;

class CLockable {
protected:
    template <class Work>
    auto Locked(Work fnWork)
    {
        std::lock_guard const lock(m_lock);
        return fnWork();
    }

    std::mutex m_lock; // guards what the classes below have behind their atomics
};

// What the double of CDolRtl (agent_fixture.cpp) does and has been asked. One at a time.
class CDolScript : CLockable {
public:
    CDolScript() { s_pScript = this; }
    ~CDolScript() { EXPECT_EQ(m_cLive, 0); }

    // Each call as a line, since the last Take: "Init 10.0.0.9 80 4", "GetDeviceId", "delete",
    // "Set 1.2.2.1.37/4 Paper;" (values but texts in hexadecimal), "Trap 1.2.2.1.38/4 1" (the id),
    // "UnTrap 1.2.2.1.38". ReadTrap and the two questions are not recorded.
    Lines Take()
    {
        return Locked([&] { return std::exchange(m_calls, {}); });
    }
    // The next call whose line begins so gives dwCode.
    void Fail(std::string strPrefix, DWORD dwCode)
    {
        Locked([&] { m_failures[strPrefix] = dwCode; });
    }
    void Push(int nTrapId, std::string strValue)
    {
        Locked([&] {
            m_traps.emplace_back(nTrapId, strValue);
            if (m_traps.size() > 1024) {
                m_traps.pop_front(); // the oldest gives way, as with the real one
            }
        });
    }
    // Calls the link's callback on this thread, as the library's would; nothing without a link.
    void Raise(DWORD dwEvent);

    // Run inside each call, "ReadTrap" too.
    std::function<void(std::string const &)> m_fnOnCall = [](auto &) {};
    std::string m_strDeviceId = "Norvale VelluMax 3";
    std::atomic<int> m_cLive{0};         // links that exist
    std::atomic<bool> m_bRaising{false}; // a thread is inside the callback

private:
    friend class CDolRtl;
    static DWORD Call(char const *pszName, unsigned char const *pOid = nullptr, DWORD cbOid = 0,
                      int nType = 4, void const *pValue = nullptr, DWORD cbValue = 0);
    static inline CDolScript *s_pScript = nullptr;
    std::condition_variable m_returned;
    std::thread::id m_idRaising;
    CDolRtlImpl *m_pLink = nullptr;
    Lines m_calls;
    std::map<std::string, DWORD> m_failures;
    std::deque<std::pair<int, std::string>> m_traps;
};

// The client. Each notification becomes a line: "kind code nValue dwValue [option] [address]".
class CClient : CLockable {
public:
    CClient() { s_pClient = this; }
    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData);
    Lines Wait(std::size_t cLines); // until there are as many; takes them

    std::function<void()> m_fnOnNotify = [] {}; // run inside the callback, after recording
    std::string m_strSenderName;                // of the last one; read after Wait
private:
    static inline CClient *s_pClient = nullptr;
    std::atomic<int> m_cInside{0};
    Lines m_lines;
};

struct CNotifyAgentProbe {
    CNotifyAgent &a;
    CString &strNetAddr = a.m_strNetAddr, &strHostAddress = a.m_strHostAddress;
    std::atomic<WORD> &wPort = a.m_wPort;
    HANDLE &hMutex = a.m_hMutex;
    std::atomic<SOCKET> &socket = a.m_socket;
    std::atomic<DWORD> &dwLastKickSeq = a.m_dwLastKickSeq;
    std::atomic<CCallbackQThread *> &pCallbackQThread = a.m_pCallbackQThread;
    std::atomic<CDolRtl *> &pDolRtl = a.m_pDolRtl;

    Counts Traps() const // select, feeder, button, fax
    {
        return {a.m_cSelectTraps, a.m_cAdfTraps, a.m_cScannerButtonTraps, a.m_cFaxUploadTraps};
    }
    DWORD UISelectOption() { return a.UISelectOption(0, nullptr); }
};

// An agent with a script and a client; the counters must come back to what they were.
class AgentTest : public ::testing::Test {
protected:
    void Connect(int bNetwork) // and forgets the calls that this made
    {
        ASSERT_EQ(m_agent.Init("10.0.0.9", kNotifyNoPort, bNetwork), 0u);
        m_script.Take();
    }
    void TearDown() override { m_agent.Shutdown(); }

    CCountersGuard m_counters;
    CDolScript m_script;
    CClient m_client;
    CNotifyAgent m_agent{CClient::OnNotify, 0xC11E27};
    CNotifyAgentProbe m_probe{m_agent};
};
