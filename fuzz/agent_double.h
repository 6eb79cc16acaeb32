// What stands around the agent in the targets that drive it: an access library that does what the input
// says, a client that keeps what it hears, and a way to the agent's inside.

#pragma once

#include "agent/callback_qthread.h"
#include "agent/dol_callback.h"
#include "agent/QOMANoAg.h"
#include "dolrtl/QOMADolC.h"
#include "fuzz/fuzz_input.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

struct CLibraryDouble {
    struct Trap {
        unsigned wTrapId = 0;
        DWORD cbSaid = 0; // what the library says that it has written
        std::string strValue;
    };
    std::vector<Trap> traps; // read from nRead on; then dwEnd
    std::size_t nRead = 0;
    DWORD dwEnd = eDR_NO_MORE_TRAPS;
    std::vector<std::pair<std::string, std::string>> sets; // object and value, each byte as it is
    std::function<DWORD(std::string const &)> fnSetResult = [](auto &) { return 0; };
};
inline CLibraryDouble g_library;

struct CNotifyAgentProbe {
    static void ReceiveDatagrams(CNotifyAgent &agent, DWORD dwLastKickSeq)
    {
        agent.m_dwLastKickSeq = dwLastKickSeq;
        agent.ReceiveDatagrams();
    }
    static CCallbackQThread *CallbackThread(CNotifyAgent &agent)
    {
        return agent.m_pCallbackQThread;
    }
};

// An agent over a local link, there for the whole run, and what its client has heard.
class CFuzzedAgent {
public:
    using Heard = std::vector<std::string>; // "kind nValue dwValue [option] [address] [name]"

    static std::string Line(int eType, int nValue, DWORD dwValue, std::string const &strOption,
                            std::string const &strAddress = "", std::string const &strName = "")
    {
        return std::to_string(eType) + " " + std::to_string(nValue) + " " +
               std::to_string(dwValue) + " [" + strOption + "] [" + strAddress + "] [" + strName +
               "]";
    }

    CFuzzedAgent() : m_agent(OnNotify, 0)
    {
        Must(m_agent.Init("x", kNotifyNoPort, 0) == 0, "the agent connects");
    }
    CNotifyAgent &Agent() { return m_agent; }

    // All that was posted before, in its order.
    Heard Take()
    {
        // The messages are delivered in the order of posting: behind this one there is none of before.
        CCallbackQThread::PostTo(CNotifyAgentProbe::CallbackThread(m_agent), eCT_LINK_RECOVERED, 0,
                                 0, nullptr, nullptr, nullptr);
        s_bEnd.wait(false);
        s_bEnd = false;
        return std::exchange(s_heard, {});
    }

private:
    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData)
    {
        if (eType == eCT_LINK_RECOVERED) {
            s_bEnd = true;
            s_bEnd.notify_one();
            return 0;
        }
        s_heard.push_back(Line(eType, pData->nValue, pData->dwValue,
                               static_cast<char const *>(pData->strOption),
                               static_cast<char const *>(pData->strSenderAddress),
                               static_cast<char const *>(pData->strSenderName)));
        return 0;
    }

    static inline Heard s_heard; // the callback thread's until s_bEnd is set
    static inline std::atomic<bool> s_bEnd{false};
    CNotifyAgent m_agent;
};
