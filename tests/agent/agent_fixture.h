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
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

using Lines = std::vector<std::string>;
using Counts = std::vector<DWORD>;

// What the double of CDolRtl (dolrtl_double.cpp) does and has been asked. One at a time.
class CDolScript {
public:
    CDolScript() { s_pScript = this; }
    ~CDolScript() { EXPECT_EQ(Live(), 0u); }

    // Each call as a line of text, since the last Take: "Init 10.0.0.9 80 4", "GetDeviceId",
    // "Set 1.2.2.1.37/4 Paper;" (values but texts in hexadecimal), "Trap 1.2.2.1.38/4 1",
    // "UnTrap 1.2.2.1.38", "delete". ReadTrap and the two questions are not recorded.
    Lines Take();
    // The next call whose line begins with strPrefix gives dwCode; ReadTrap when no trap is left.
    void Fail(std::string const &strPrefix, DWORD dwCode);
    void Push(unsigned short wTrapId, std::string const &strValue); // a trap that waits
    // Calls the newest link's callback on this thread, as the library's would; nothing without a link.
    void Raise(DWORD dwEvent);
    bool IsRaising();
    std::size_t Live(); // links that exist

    std::function<void(std::string const &)> m_fnOnCall; // run inside each recorded call
    std::string m_strDeviceId = "Norvale VelluMax 3";
    DWORD m_dwDeviceIdResult = 0;

private:
    friend class CDolRtl;
    friend class CDolRtlImpl;
    struct CLink;
    template <class Text>
    DWORD Call(Text fnText);
    DWORD TakeFailure(std::string const &strLine);

    static CDolScript *s_pScript;
    std::recursive_mutex m_lock; // guards what follows
    std::condition_variable_any m_returned;
    Lines m_calls;
    std::map<std::string, DWORD> m_failures;
    std::deque<std::pair<unsigned short, std::string>> m_traps;
    std::vector<std::shared_ptr<CLink>> m_links;
};

// The client. Each notification becomes a line: "kind code nValue dwValue [option] [address]".
class CClient {
public:
    CClient() { s_pClient = this; }
    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData);
    Lines Wait(std::size_t cLines); // until there are as many; takes them

    std::function<void()> m_fnOnNotify = [] {}; // run inside the callback, after recording
    std::string m_strSenderName;                // of the last one

private:
    static inline CClient *s_pClient = nullptr;
    std::mutex m_lock;
    Lines m_lines;
    std::atomic<int> m_cInside{0};
};

// A look into the agent.
struct CNotifyAgentProbe {
    CNotifyAgent &agent;
    CString &strNetAddr = agent.m_strNetAddr;
    CString &strHostAddress = agent.m_strHostAddress;
    std::atomic<WORD> &wPort = agent.m_wPort;
    std::atomic<SOCKET> &socket = agent.m_socket;
    std::atomic<DWORD> &dwLastKickSeq = agent.m_dwLastKickSeq;
    std::atomic<int> &bStopDatagrams = agent.m_bStopDatagrams;
    std::atomic<CCallbackQThread *> &pCallbackQThread = agent.m_pCallbackQThread;

    Counts Traps() const // select, feeder, button, fax
    {
        return {agent.m_cSelectTraps, agent.m_cAdfTraps, agent.m_cScannerButtonTraps,
                agent.m_cFaxUploadTraps};
    }
    DWORD GetKickSeq(char *pszText, DWORD *pdw) { return agent.GetKickSeq(pszText, pdw); }
    DWORD CloseSocket() { return agent.CloseSocket(); }
    DWORD UISelectOption() { return agent.UISelectOption(0, nullptr); }
};

// An agent with a script and a client; the counters must come back to what they were.
class AgentTest : public ::testing::Test {
protected:
    // Connects and forgets the calls that this made.
    void Connect(int bNetwork)
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
