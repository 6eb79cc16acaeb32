// Hears of each pick of "Paper Archive" on a device's panel, until Enter. usage: client [ADDRESS [PORT]]
#include "agent/QOMANoAg.h"

#include <cstdio>
#include <cstdlib>

static DWORD OnNotify(CallbackType eType, CallbackDataType *pData)
{
    // A thread of the agent's: copy what you need and return soon; never call Shutdown here.
    std::printf("kind %d: %s\n", eType, static_cast<char const *>(pData->strOption));
    std::fflush(stdout);
    return 0;
}

int main(int argc, char **argv)
{
    CNotifyAgent agent(OnNotify, 0);
    DWORD const dwPort = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : kNotifyNoPort;
    DWORD dwInstance = 0;
    DWORD dwResult = agent.Init(argc > 1 ? argv[1] : "127.0.0.1", dwPort, /*bNetwork=*/1);
    if (dwResult == NO_ERROR &&
        (dwResult = agent.Add(&dwInstance, eNF_SELECT, "Paper Archive")) == NO_ERROR) {
        std::getchar();
    }
    agent.Shutdown();
    return dwResult == NO_ERROR ? 0 : 1;
}
