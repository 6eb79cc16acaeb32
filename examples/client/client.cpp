// Hears of each pick of "Paper Archive" on a device's panel, until Enter. usage: client [ADDRESS [PORT]]
#include "agent/QOMANoAg.h"

#include <cstdio>
#include <cstdlib>

static CNotifyAgent *s_pAgent;

static DWORD Subscribe()
{
    DWORD dwInstance = 0;
    return s_pAgent->Add(&dwInstance, eNF_SELECT, "Paper Archive");
}

static DWORD OnNotify(CallbackType eType, CallbackDataType *pData)
{
    // A thread of the agent's: copy what you need and return soon; never call Shutdown here.
    std::printf("kind %d: %s\n", eType, static_cast<char const *>(pData->strOption));
    std::fflush(stdout);
    if (eType == eCT_LINK_RECOVERED) {
        Subscribe(); // the device has forgotten us; if it goes once more, so we hear of it once more
    }
    return 0;
}

int main(int argc, char **argv)
{
    CNotifyAgent agent(OnNotify, 0);
    s_pAgent = &agent;
    DWORD const dwPort = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : kNotifyNoPort;
    DWORD dwResult = agent.Init(argc > 1 ? argv[1] : "127.0.0.1", dwPort, /*bNetwork=*/1);
    if (dwResult == NO_ERROR && (dwResult = Subscribe()) == NO_ERROR) {
        std::getchar();
    }
    agent.Shutdown();
    return dwResult == NO_ERROR ? 0 : 1;
}
