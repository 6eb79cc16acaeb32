// Agents, their access library and devices together. First all of them do at random what the headers allow, on a bad
// network; then the world calms down, and every agent has to hear what is picked for it, before and after a break.
#include "sim/scenarios/scenario.h"

#include "agent/QOMANoAg.h"
#include "device/soft_device.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kcMostAgents = 8;
constexpr int kcMostDevices = 4;
constexpr int kcPicks = 2; // in the calm: one before a break, one after it
constexpr std::uint32_t kCallMs =
    120'000; // any call, callbacks and other calls that it waits for included
constexpr std::uint32_t kCalmMs = 90'000;   // what has to come about in the calm
constexpr std::uint32_t kSettleMs = 15'000; // in which what came once would come again

enum EPhase : int { eWILD, eCALM, eBREAK, eEND };

// What the processes see of each other.
struct BoardType {
    std::atomic<int> ePhase;
    int cAgents;
    int cDevices;
    bool fExclusive; // an agent is connected and disconnected by its own thread only
    bool fBusy;      // callbacks come often, and do much to other agents
    struct AgentType {
        int nDevice;
        bool fNetwork;
        std::atomic<int> cWanted;         // picks that the device is to make for it
        std::atomic<int> cHeard[kcPicks]; // of each of them
        std::atomic<int> cRecovered;
    } agents[kcMostAgents];
    struct DeviceType {
        std::atomic<int> cPresses;
        std::atomic<int> cClaims; // that the device has granted
        std::atomic<int> cWon;    // that a client was told of
        std::atomic<int> cUp;     // 1 once it listens
    } devices[kcMostDevices];
    std::atomic<int> cReady; // agents that have come to the end of a phase
};

BoardType &Board()
{
    static_assert(sizeof(BoardType) <= kcbSimBoard);
    return *static_cast<BoardType *>(SimBoard());
}

int HostOfDevice(int nDevice)
{
    return 2 + nDevice;
}

std::string AddressOfDevice(int nDevice)
{
    return "10.0.0." + std::to_string(HostOfDevice(nDevice));
}

std::string CalmText(int nAgent, int nPick)
{
    return "Calm" + std::to_string(nAgent) + "." + std::to_string(nPick);
}

template <class Condition>
void Await(char const *pszWhat, int nWho, std::uint32_t dwMilliseconds, Condition fnDone)
{
    SimTime const end = SimNow() + dwMilliseconds * kSimMillisecond;
    while (!fnDone()) {
        if (SimNow() > end) {
            SimFail("%s, %d", pszWhat, nWho);
        }
        Sleep(20);
    }
}

// For the time of a call of the product's, it may be refused what it asks for.
class CRefusals {
public:
    explicit CRefusals(bool fOn) : m_fBefore(SimSetRefusals(fOn)) {}
    ~CRefusals() { SimSetRefusals(m_fBefore); }
    CRefusals(CRefusals const &) = delete;
    CRefusals &operator=(CRefusals const &) = delete;

private:
    bool const m_fBefore;
};

// ---- A client

class CSimClient;
std::vector<CSimClient *> g_clients; // of this process

class CSimClient {
public:
    explicit CSimClient(int nAgent)
        : m_nAgent(nAgent), m_own(Board().agents[nAgent]),
          m_agent(&OnNotify, static_cast<DWORD>(nAgent))
    {
    }

    void Wild()
    {
        while (Board().ePhase == eWILD) {
            Step(/*fOwn=*/true);
        }
    }

    // One thing that a client does; not its own agent's owner leaves its connection alone.
    void Step(bool fOwn)
    {
        bool const fConnection = fOwn || !Board().fExclusive;
        switch (SimBelow(16)) {
        case 0:
            return fConnection ? Disconnect() : Rest(50);
        case 1:
            if (fConnection) {
                m_fMayHear = true;
                Call("RestartDolRtl", [&] { return m_agent.RestartDolRtl(); });
            }
            return;
        case 2:
        case 3:
            return fConnection ? static_cast<void>(Connect()) : Rest(50);
        case 4:
            Call("ReadTraps", [&] { return ReadTraps(); });
            return;
        case 5:
            Call("Delete", [&] { return m_agent.Delete(m_dwInstance, 1 + SimBelow(15), "Entry"); });
            return;
        case 6:
            Call("Modify", [&] { return m_agent.Modify(&m_dwModified, "Entry", "Entry"); });
            return;
        case 7:
        case 8:
        case 9:
            Call("Add", [&] { return m_agent.Add(&m_dwInstance, 1 + SimBelow(15), "Entry"); });
            return;
        case 10:
            return Rest(20'000);
        default:
            return Rest(300);
        }
    }

    // Connects in a calm world, and hears a pick; then a break, and another pick.
    void Calm()
    {
        m_fCalm = true;
        Disconnect();
        Await("an agent cannot be connected", m_nAgent, kCalmMs, [&] {
            DWORD const dwResult = Connect();
            if (dwResult != 0) {
                Disconnect();
                Sleep(500);
            }
            return dwResult == 0;
        });
        HearPick(0);
        ++Board().cReady;
        int const cBefore = m_own.cRecovered;
        Await("the break does not come", m_nAgent, 30 * kCalmMs,
              [] { return Board().ePhase >= eBREAK; });
        Await("an agent does not hear that its link is back", m_nAgent, kCalmMs,
              [&] { return m_own.cRecovered > cBefore; });
        HearPick(1);
        ++Board().cReady;
        Await("the end does not come", m_nAgent, 30 * kCalmMs,
              [] { return Board().ePhase == eEND; });
        Disconnect();
    }

private:
    template <class Work>
    DWORD Call(char const *pszName, Work fnWork)
    {
        CSimLimit const limit(pszName, kCallMs);
        CRefusals const refusals(true);
        DWORD const dwResult = fnWork();
        SimNote("agent %d: %s gives %u", m_nAgent, pszName, static_cast<unsigned>(dwResult));
        return dwResult;
    }

    DWORD ReadTraps()
    {
        try {
            return m_agent.ReadTraps();
        } catch (std::bad_alloc const &) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    DWORD Connect()
    {
        m_fMayHear = true;
        bool const fNetwork = m_own.fNetwork;
        return Call("Init", [&] {
            return m_agent.Init(fNetwork ? AddressOfDevice(m_own.nDevice).c_str() : nullptr,
                                kNotifyNoPort, fNetwork ? 1 : 0);
        });
    }

    void Disconnect()
    {
        DWORD const dwResult = Call("Shutdown", [&] { return m_agent.Shutdown(); });
        if (!Board().fExclusive && !m_fCalm) {
            return;
        }
        if (dwResult != NO_ERROR && dwResult != ERROR_NOT_CONNECTED &&
            dwResult != ERROR_INVALID_OWNER) {
            SimFail("Shutdown of agent %d gives %u", m_nAgent, static_cast<unsigned>(dwResult));
        }
        m_fMayHear = false;
        m_dwLastSequence = 0;
    }

    void HearPick(int nPick)
    {
        DWORD dwInstance = 0;
        std::string const strText = CalmText(m_nAgent, nPick);
        DWORD const dwResult =
            Call("Add", [&] { return m_agent.Add(&dwInstance, eNF_SELECT, strText.c_str()); });
        if (dwResult != 0) {
            SimFail("Add of agent %d gives %u in a calm world", m_nAgent,
                    static_cast<unsigned>(dwResult));
        }
        ++m_own.cWanted;
        Await("an agent does not hear a pick", m_nAgent, kCalmMs,
              [&] { return m_own.cHeard[nPick] > 0; });
        Sleep(kSettleMs);
        if (m_own.cHeard[nPick] != 1) {
            SimFail("agent %d hears a pick %d times", m_nAgent, m_own.cHeard[nPick].load());
        }
    }

    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData)
    {
        CRefusals const refusals(false);
        for (CSimClient *const pClient : g_clients) {
            if (pClient->m_nAgent == static_cast<int>(pData->dwClientData)) {
                pClient->Hear(eType, *pData);
            }
        }
        return 0;
    }

    void Hear(CallbackType eType, CallbackDataType const &data)
    {
        if (m_fInside.exchange(true)) {
            SimFail("agent %d calls its client twice at once", m_nAgent);
        }
        bool const fStrict = Board().fExclusive || m_fCalm;
        if (fStrict && !m_fMayHear) {
            SimFail("agent %d calls its client after Shutdown", m_nAgent);
        }
        std::string const strOption = static_cast<char const *>(data.strOption);
        SimNote("agent %d hears %d: %s", m_nAgent, eType, strOption.c_str());
        if (eType == eCT_LINK_RECOVERED) {
            m_dwLastSequence = 0;
            ++m_own.cRecovered;
        } else if (eType == eCT_SCANNER_BUTTON_NOTIFY) {
            BoardType::DeviceType &device = Board().devices[m_own.nDevice];
            if (++device.cWon > device.cClaims) {
                SimFail("a press has more winners than one");
            }
        } else if (eType == eCT_SELECT_NOTIFY) {
            HearSelection(strOption, fStrict);
        }
        if (!m_fCalm) {
            React();
        }
        m_fInside = false;
    }

    void HearSelection(std::string const &strOption, bool fStrict)
    {
        std::size_t const nSequence = strOption.find("KICKSEQ=");
        if (nSequence != std::string::npos && fStrict) {
            auto const dwSequence =
                static_cast<DWORD>(std::atoi(strOption.c_str() + nSequence + 8));
            if (dwSequence <= m_dwLastSequence) {
                SimFail("agent %d hears datagram %u after %u", m_nAgent,
                        static_cast<unsigned>(dwSequence),
                        static_cast<unsigned>(m_dwLastSequence.load()));
            }
            m_dwLastSequence = dwSequence;
        }
        for (int n = 0; n < kcPicks; ++n) {
            if (strOption.starts_with(CalmText(m_nAgent, n) + ";")) {
                ++m_own.cHeard[n];
            }
        }
    }

    // Some of what a client does in its callback, also to others of the process.
    void React()
    {
        CSimClient &other = *g_clients[SimBelow(static_cast<std::uint32_t>(g_clients.size()))];
        switch (Board().fBusy ? 3 + SimBelow(3) : SimBelow(8)) {
        case 0:
            if (m_agent.Shutdown() == NO_ERROR) {
                SimFail("Shutdown in the agent's own callback");
            }
            return;
        case 1:
        case 2:
            other.Call("Add in a callback", [&] {
                DWORD dwInstance = 0;
                return other.m_agent.Add(&dwInstance, 1 + SimBelow(15), "Called");
            });
            return;
        case 3:
            if (&other != this && !Board().fExclusive) {
                other.Call("Shutdown in a callback", [&] { return other.m_agent.Shutdown(); });
            }
            return;
        case 4:
            return Rest(2000);
        default:
            return Rest(20);
        }
    }

    int const m_nAgent;
    BoardType::AgentType &m_own;
    CNotifyAgent m_agent;
    DWORD m_dwInstance = 0;
    DWORD m_dwModified = 0;
    std::atomic<bool> m_fMayHear{false};
    std::atomic<bool> m_fCalm{false};
    std::atomic<bool> m_fInside{false};
    std::atomic<DWORD> m_dwLastSequence{0};
};

// ---- A device

void OnDevice(int nDevice, DeviceEvent const &event)
{
    if (event.eKind == eEV_PRESS_CLAIMED) {
        ++Board().devices[nDevice].cClaims;
    }
    CRefusals const refusals(false);
    SimNote("device %d: %s", nDevice, DeviceEventLine(event).c_str());
}

void DeviceStep(CSoftDevice &device, BoardType::DeviceType &own)
{
    switch (SimBelow(24)) {
    case 0:
        return SimOneIn(4) ? device.CutLinks(SimBelow(3000)) : void();
    case 1:
        return device.DropDatagrams(SimBelow(4));
    case 2:
        return device.RefuseClaims(SimBelow(3));
    case 3:
        return device.SetLate(SimOneIn(2) ? 0 : SimBelow(6000));
    case 4:
        return device.GarbleAnswers(SimOneIn(4) ? 1 : 0);
    case 5:
        return SimOneIn(10) ? device.SendGarbage() : void();
    case 6:
        return device.SetMute(SimOneIn(10));
    case 7:
    case 8:
        return static_cast<void>(device.SetFeeder(SimOneIn(2)));
    case 9:
    case 10:
        ++own.cPresses;
        return static_cast<void>(device.PressButton());
    case 11:
        return static_cast<void>(device.AnnounceFax());
    default:
        return static_cast<void>(device.Pick(1 + SimBelow(8)));
    }
}

// Picks what agents have asked for.
void DevicePicks(CSoftDevice &device, int nDevice, int (&acDone)[kcMostAgents])
{
    for (int n = 0; n < Board().cAgents; ++n) {
        BoardType::AgentType &agent = Board().agents[n];
        if (agent.nDevice != nDevice || acDone[n] == agent.cWanted) {
            continue;
        }
        std::string strError;
        std::string const strText = CalmText(n, acDone[n]++) + ";";
        if (!device.WaitForEntry(strText, 1000, &strError) ||
            !device.PickText(strText, &strError)) {
            SimFail("the entry of agent %d is not there: %s", n, strError.c_str());
        }
    }
}

template <class Fn>
void Repeat(Fn fn, std::uint32_t dwRestMs)
{
    while (Board().ePhase == eWILD) {
        fn();
        Rest(dwRestMs);
    }
}

} // namespace

void DeviceRole(int nDevice)
{
    BoardType::DeviceType &own = Board().devices[nDevice];
    CNothingLeft const nothingLeft;
    SoftDeviceConfig config;
    config.strListen = "0.0.0.0";
    config.onEvent = [nDevice](DeviceEvent const &event) { OnDevice(nDevice, event); };
    CSoftDevice device(config);
    std::string strError;
    if (!device.Start(&strError, 19290)) {
        SimFail("device %d does not start: %s", nDevice, strError.c_str());
    }
    own.cUp = 1;
    Repeat(
        [&] {
            DeviceStep(device, own);
            if (Board().fBusy) {
                device.AnnounceFax();
            }
        },
        Board().fBusy ? 100 : 1000);
    device.SetLate(0);
    device.SetMute(false);
    device.GarbleAnswers(0);
    device.RefuseClaims(0);
    device.DropDatagrams(0);
    int acDone[kcMostAgents] = {};
    while (Board().ePhase == eCALM) {
        DevicePicks(device, nDevice, acDone);
        Sleep(50);
    }
    device.CutLinks(SimBelow(3000));
    while (Board().ePhase == eBREAK) {
        DevicePicks(device, nDevice, acDone);
        Sleep(50);
    }
    device.Stop();
    if (own.cClaims > own.cPresses) {
        SimFail("device %d has granted more claims than there were presses", nDevice);
    }
}

// The agents whose numbers have this many bits set in the mask are in one process.
void ClientRole(int nMask)
{
    CNothingLeft const nothingLeft;
    {
        std::vector<std::unique_ptr<CSimClient>> clients;
        for (int n = 0; n < kcMostAgents; ++n) {
            if ((nMask >> n & 1) != 0) {
                clients.push_back(std::make_unique<CSimClient>(n));
                g_clients.push_back(clients.back().get());
            }
        }
        std::vector<std::thread> threads;
        for (auto const &pClient : clients) {
            threads.emplace_back([&] { pClient->Wild(); });
        }
        threads.emplace_back([] {
            Repeat(
                [] {
                    g_clients[SimBelow(static_cast<std::uint32_t>(g_clients.size()))]->Step(false);
                },
                500);
        });
        for (std::thread &thread : threads) {
            thread.join();
        }
        threads.clear();
        for (auto const &pClient : clients) {
            threads.emplace_back([&] { pClient->Calm(); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    g_clients = {};
}

namespace {

// Which agents there are, and in which process each lives.
std::vector<std::pair<int, int>> PlanClients(BoardType &board) // host, mask
{
    std::vector<std::pair<int, int>> plans;
    for (int n = 0; n < board.cAgents; ++n) {
        BoardType::AgentType &agent = board.agents[n];
        agent.nDevice = static_cast<int>(SimBelow(static_cast<std::uint32_t>(board.cDevices)));
        agent.fNetwork = SimOneIn(2);
        int const nHost = agent.fNetwork && SimOneIn(2) ? 1 : HostOfDevice(agent.nDevice);
        auto const it = std::find_if(plans.begin(), plans.end(),
                                     [&](auto const &plan) { return plan.first == nHost; });
        if (it != plans.end() && (SimOneIn(2) || plans.size() >= 5)) {
            it->second |= 1 << n;
        } else {
            plans.emplace_back(nHost, 1 << n);
        }
    }
    return plans;
}

SimTroubles WildTroubles()
{
    SimTroubles troubles;
    auto const Maybe = [](std::uint32_t n) { return SimOneIn(2) ? 0 : n; };
    troubles.nStall = Maybe(300);
    troubles.dwStallMs = SimOneIn(4) ? 3000 : 50;
    troubles.nSpurious = Maybe(30);
    troubles.nRefuse = Maybe(300);
    troubles.nDrop = Maybe(5);
    troubles.nRepeat = Maybe(5);
    troubles.nReorder = Maybe(5);
    troubles.nReset = Maybe(200);
    troubles.dwDelayMs = SimOneIn(3) ? 1500 : 5;
    troubles.cbBuffer = SimOneIn(2) ? 1 << 16 : 8192;
    return troubles;
}

} // namespace

void AgentsScenario(int)
{
    BoardType &board = Board();
    board.cDevices =
        SimChoice("devices", 1 + static_cast<int>(SimBelow(SimOneIn(2) ? 1 : kcMostDevices)));
    board.cAgents =
        SimChoice("agents", 1 + static_cast<int>(SimBelow(SimOneIn(2) ? 3 : kcMostAgents)));
    board.fExclusive = SimOneIn(2);
    board.fBusy = !board.fExclusive && SimOneIn(2);
    std::vector<int> processes;
    for (int n = 0; n < board.cDevices; ++n) {
        processes.push_back(SimSpawn(HostOfDevice(n), "device", n));
    }
    for (int n = 0; n < board.cDevices; ++n) {
        Await("a device does not start", n, kCalmMs, [&] { return board.devices[n].cUp != 0; });
    }
    for (auto const &[nHost, nMask] : PlanClients(board)) {
        processes.push_back(SimSpawn(nHost, "client", nMask));
    }
    SimSetTroubles(WildTroubles());
    for (SimTime const end = SimNow() + SimDuration(); SimNow() < end;) {
        Rest(20'000);
        if (SimOneIn(3)) {
            SimPartition(1, HostOfDevice(static_cast<int>(SimBelow(kcMostDevices))),
                         SimNow() + static_cast<SimTime>(SimBelow(30)) * kSimSecond);
        }
    }
    SimTroubles calm;
    calm.nDrop = SimOneIn(2) ? 10 : 0;
    calm.nRepeat = calm.nReorder = SimOneIn(2) ? 4 : 0;
    calm.nSpurious = 30;
    SimSetTroubles(calm);
    board.ePhase = eCALM;
    Await("not all agents hear a pick", -1, 20 * kCalmMs,
          [&] { return board.cReady == board.cAgents; });
    board.cReady = 0;
    board.ePhase = eBREAK;
    Await("not all agents hear a pick after a break", -1, 20 * kCalmMs,
          [&] { return board.cReady == board.cAgents; });
    board.ePhase = eEND;
    for (int const nProcess : processes) {
        CSimLimit const limit("the end of a process", 5 * kCallMs);
        SimAwaitEnd(nProcess);
    }
}
