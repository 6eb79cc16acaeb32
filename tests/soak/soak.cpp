// soak: agents that live at random, for as long as it is told to, and leave nothing behind.
//
// Several clients in this process connect, subscribe, restart, shut down and destroy their agents while
// the device picks, cuts, misbehaves and is restarted, a stranger sends datagrams, and the settings of
// the diagnostics change. All that lives for a round of some seconds; then everything must be gone: the
// counters at zero, handles and threads at what they were after the first round, and the memory, over
// all rounds, flat.
//
// usage: soak MINUTES [SEED]. QOMA_SOAK_MEMORY=0: memory is shown, not judged, for builds whose runtime
// keeps what was freed. Exit codes: 0 done, 1 something was left or went wrong, 2 bad usage.

#include "agent/QOMANoAg.h"
#include "device/soft_device.h"
#include "devlink/link_stream.h"
#include "evtmgr/g_evthost.h"
#include "evtmgr/g_evtmgr.h"
#include "foundation/g_os.h"
#include "platform/probe.h"
#include "platform/socket.h"
#include "tests/support/guards.h"
#include "tests/support/reg_file.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kcClients = 5;
constexpr std::chrono::seconds kRound{10};
constexpr std::chrono::seconds kLongestStep{60}; // an operation that takes longer hangs
// What may be added to the memory, in MB, from an early to a late quarter of a run.
constexpr double kHeldSlack = 3.0;
constexpr double kInUseSlack = 0.05;
std::atomic<unsigned long> g_cSteps{0};
std::atomic<unsigned long> g_cHeard{0};
std::atomic<unsigned long> g_cPresses{0};
std::atomic<unsigned long> g_cClaimed{0};

[[noreturn]] void Fail(std::string const &strWhy)
{
    std::printf("soak: FAILED: %s\n", strWhy.c_str());
    std::fflush(stdout);
    std::_Exit(1); // the threads of the round are still at work
}

class CDice {
public:
    explicit CDice(unsigned nSeed) : m_random(nSeed) {}
    unsigned Below(unsigned n)
    {
        return std::uniform_int_distribution<unsigned>(0, n - 1)(m_random);
    }
    bool OneIn(unsigned n) { return Below(n) == 0; }
    void Rest(unsigned nMaxMs) { std::this_thread::sleep_for(milliseconds(Below(nMaxMs))); }

private:
    std::mt19937 m_random;
};

// The device, which is now and then away for a moment. One lock, so that nobody uses one that goes.
class CDeviceHolder {
public:
    explicit CDeviceHolder(std::string strPrintPath)
    {
        m_config.strPrintPath = std::move(strPrintPath);
        m_config.dwKickIntervalMs = 50;
        Restart("VELLUMAX 4000");
    }
    void Restart(char const *pszModel)
    {
        std::lock_guard const lock(m_lock);
        m_device.reset();
        m_config.strModel = pszModel;
        m_device.emplace(m_config);
        std::string strError;
        if (!m_device->Start(&strError)) {
            Fail("the device does not start: " + strError);
        }
        m_config.wPort = m_device->Port();
    }
    template <class Work>
    auto With(Work fnWork)
    {
        std::lock_guard const lock(m_lock);
        return fnWork(*m_device);
    }
    WORD Port() const { return m_config.wPort; }

private:
    std::mutex m_lock;
    SoftDeviceConfig m_config;
    std::optional<CSoftDevice> m_device;
};

// A client: one thread that owns an agent, and the agent's callback.
class CLife {
public:
    CLife(std::size_t nNumber, unsigned nSeed, WORD wPort, std::string strTarget)
        : m_nNumber(nNumber), m_dice(nSeed), m_wPort(wPort), m_strTarget(std::move(strTarget)),
          m_heardDice(nSeed + 1)
    {
        s_lives[nNumber] = this;
        m_agent.emplace(&CLife::OnNotify, static_cast<DWORD>(m_nNumber));
    }
    ~CLife()
    {
        Quiet();
        m_agent.reset();
        s_lives[m_nNumber] = nullptr;
    }
    void Step()
    {
        using Act = void (*)(CLife &);
        static constexpr Act kActs[] = {
            [](CLife &own) { own.Quiet(); },
            [](CLife &own) { own.Renew(); },
            [](CLife &own) { own.Note("RestartDolRtl", own.m_agent->RestartDolRtl()); },
            [](CLife &own) { own.Note("ReadTraps", own.m_agent->ReadTraps()); },
            [](CLife &own) { own.Discover(); },
            [](CLife &own) {
                own.Note("Delete", own.m_agent->Delete(own.m_dwInstance, own.Flags(), "Entry"));
            },
            [](CLife &own) {
                own.Note("Modify", own.m_agent->Modify(&own.m_dwInstance, "Entry", "Entry"));
            },
            &CLife::Connect,
            &CLife::Connect,
            &CLife::Connect,
            [](CLife &own) { own.m_dice.Rest(50); },
            [](CLife &own) { own.m_dice.Rest(50); },
            &CLife::Add,
            &CLife::Add,
            &CLife::Add,
            &CLife::Add};
        ++g_cSteps;
        m_tpStep = Clock::now();
        kActs[m_dice.Below(std::size(kActs))](*this);
    }
    // Called by the thread that watches over all of them.
    void LookForHang() const
    {
        if (Clock::now() - m_tpStep.load() > kLongestStep) {
            Fail("client " + std::to_string(m_nNumber) + " hangs");
        }
    }

private:
    void Renew()
    {
        Quiet();
        m_agent.emplace(&CLife::OnNotify, static_cast<DWORD>(m_nNumber));
    }
    static void Connect(CLife &own)
    {
        own.m_fMayHear = true;
        int const bNetwork = own.m_dice.OneIn(2) ? 1 : 0;
        DWORD const dwPort = own.m_dice.OneIn(12) ? 1 : own.m_wPort; // 1: nobody listens
        own.Note("Init", own.m_agent->Init(bNetwork ? "127.0.0.1" : nullptr, dwPort, bNetwork));
    }
    static void Add(CLife &own)
    {
        own.Note("Add", own.m_agent->Add(&own.m_dwInstance, own.Flags(), "Entry"));
    }
    void Discover()
    {
        Note("InitiateSrvQDiscovery",
             m_agent->InitiateSrvQDiscovery(&m_dwInstance, m_strTarget.c_str()));
    }
    DWORD Flags() { return 1 + m_dice.Below(15); }
    void Quiet()
    {
        DWORD const dwResult = m_agent->Shutdown();
        if (dwResult != NO_ERROR && dwResult != ERROR_NOT_CONNECTED &&
            dwResult != ERROR_INVALID_OWNER) {
            Fail("Shutdown gave " + std::to_string(dwResult));
        }
        m_fMayHear = false;
    }
    // Any code of the link may come; what must not is a code that says the agent has run out of things.
    void Note(char const *pszWhat, DWORD dwResult) const
    {
        if (dwResult == ERROR_NOT_ENOUGH_MEMORY || dwResult == ERROR_INVALID_PARAMETER) {
            Fail(std::string(pszWhat) + " gave " + std::to_string(dwResult));
        }
    }

    static DWORD OnNotify(CallbackType eType, CallbackDataType *pData)
    {
        CLife *const pLife = s_lives.at(pData->dwClientData);
        if (pLife == nullptr || !pLife->m_fMayHear || pLife->m_fInside.exchange(true)) {
            Fail("a call after Shutdown, or two at once");
        }
        ++g_cHeard;
        g_cClaimed += eType == eCT_SCANNER_BUTTON_NOTIFY;
        pLife->Heard();
        pLife->m_fInside = false;
        return 0;
    }
    // In the callback: some of what a client does there, allowed or not.
    void Heard()
    {
        switch (m_heardDice.Below(20)) {
        case 0:
            return Note("Add in the callback", m_agent->Add(&m_dwHeard, eNF_SELECT, "Called"));
        case 1:
            if (m_agent->Shutdown() != ERROR_NOT_SUPPORTED) {
                Fail("Shutdown in the callback was let through");
            }
            return;
        case 2:
            return m_heardDice.Rest(30);
        default:
            return;
        }
    }

    static inline std::array<std::atomic<CLife *>, kcClients> s_lives{};

    std::size_t const m_nNumber;
    CDice m_dice;
    WORD const m_wPort;
    std::string const m_strTarget;
    std::optional<CNotifyAgent> m_agent;
    DWORD m_dwInstance = 0;
    std::atomic<Clock::time_point> m_tpStep{Clock::now()};
    std::atomic<bool> m_fMayHear{false};
    // The callback thread's.
    std::atomic<bool> m_fInside{false};
    CDice m_heardDice;
    DWORD m_dwHeard = 0;
};

// Somebody's finger on the panel, and the device's bad days.
void DeviceStep(CDeviceHolder &holder, CDice &dice)
{
    if (dice.OneIn(800)) {
        return holder.Restart(dice.OneIn(8) ? "OTHER MAKE" : "VELLUMAX 4000");
    }
    using Act = void (*)(CSoftDevice &, CDice &);
    static constexpr Act kActs[] = {
        [](auto &device, auto &r) { r.OneIn(10) ? device.CutLinks(r.Below(300)) : void(); },
        [](auto &device, auto &r) { device.DropDatagrams(r.Below(8)); },
        [](auto &device, auto &r) { device.RepeatDatagrams(r.Below(8)); },
        [](auto &device, auto &r) { device.ReorderDatagrams(r.Below(8)); },
        [](auto &device, auto &r) { device.LoseEchoes(r.Below(8)); },
        [](auto &device, auto &r) { device.RefuseClaims(r.Below(8)); },
        [](auto &device, auto &r) { device.SetLate(r.OneIn(2) ? 0 : r.Below(100)); },
        [](auto &device, auto &r) { device.GarbleAnswers(r.OneIn(4) ? 1 : 0); },
        [](auto &device, auto &r) {
            r.OneIn(20) ? device.SendGarbage() : void(device.AnnounceFax());
        },
        [](auto &device, auto &r) { device.SetMute(r.OneIn(20)); },
        [](auto &device, auto &r) { device.SetFeeder(r.OneIn(2)); }};
    holder.With([&](CSoftDevice &device) {
        unsigned const n = dice.Below(40);
        if (n < std::size(kActs)) {
            kActs[n](device, dice);
        } else if (n < std::size(kActs) + 3) {
            ++g_cPresses;
            device.PressButton();
        } else {
            device.Pick(1 + dice.Below(20)); // false where there is no entry
        }
    });
    dice.Rest(10);
}

// Datagrams of no device's, to every port that a panel entry names.
void StrangerStep(CDeviceHolder &holder, CDice &dice, SOCKET s)
{
    static char const *const kTexts[] = {"", "x", "KICKSEQ=;", "%n%s%n;KICKSEQ=3;",
                                         "KICKSEQ=4294967295;"};
    for (PanelEntry const &entry :
         holder.With([](CSoftDevice &device) { return device.Panel(); })) {
        std::size_t const nPort = entry.strText.find(':', entry.strText.find("NETADDR="));
        if (nPort == std::string::npos || !entry.fNetwork) {
            continue;
        }
        // An empty one ends the listener, so it comes seldom.
        std::string strText = kTexts[dice.OneIn(50) ? 0 : 1 + dice.Below(4)];
        strText.append(dice.OneIn(20) ? dice.Below(2000) : 0, '\xF5');
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = ws::htons(static_cast<WORD>(std::atoi(entry.strText.c_str() + nPort + 1)));
        to.sin_addr.s_addr = ws::inet_addr("127.0.0.1");
        ws::sendto(s, strText.data(), static_cast<int>(strText.size()), 0,
                   reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    dice.Rest(100);
}

void SettingsStep(CRegFile &settings, std::string const &strLog, CDice &dice)
{
    std::string const strKey = "\n[SOFTWARE\\Norvale\\Skiffmail\\EvtMgr\\Modules\\soak";
    std::string const strText = strKey + "\\File]\n\"State\"=dword:" + (dice.OneIn(3) ? "0" : "1") +
                                "\n\"Level\"=dword:" + std::to_string(dice.Below(3)) +
                                "\n\"Append\"=dword:0\n\"File Name\"=\"" +
                                ReplaceAll(strLog, "\\", "\\\\") + "\"\n" + strKey +
                                "]\n\"Id String\"=\"[SOAK]: \"\n";
    settings.Write(dice.OneIn(8) ? "\n[broken\n" : strText);
    LoadParameters();
    dice.Rest(500);
}

void Round(unsigned nSeed, CTempDir const &dir)
{
    CRegFile settings(dir.File("settings.reg"));
    if (GInstallEvtMgr("soak") != 0) {
        Fail("no event manager");
    }
    {
        std::string const strTarget = dir.File("print path");
        std::ofstream(strTarget, std::ios::trunc).flush();
        CDeviceHolder holder(strTarget);
        CSocketLibrary const library;
        SOCKET const stranger = ws::socket(AF_INET, SOCK_DGRAM, 0);
        std::vector<std::unique_ptr<CLife>> lives;
        for (std::size_t i = 0; i < kcClients; ++i) {
            lives.push_back(std::make_unique<CLife>(i, nSeed + 10 * static_cast<unsigned>(i),
                                                    holder.Port(), strTarget));
        }
        std::atomic<bool> fStop{false};
        std::vector<std::thread> threads;
        auto const run = [&](auto fnStep) {
            threads.emplace_back(
                [&fStep = fStop, nOwn = nSeed + 1000 + unsigned(threads.size()), fnStep] {
                    CDice dice(nOwn);
                    while (!fStep) {
                        fnStep(dice);
                    }
                });
        };
        for (auto const &pLife : lives) {
            run([p = pLife.get()](CDice &) { p->Step(); });
        }
        run([&](CDice &dice) { DeviceStep(holder, dice); });
        run([&](CDice &dice) { StrangerStep(holder, dice, stranger); });
        run([&](CDice &dice) { SettingsStep(settings, dir.File("soak.log"), dice); });
        for (auto const tpEnd = Clock::now() + kRound; Clock::now() < tpEnd;) {
            std::this_thread::sleep_for(milliseconds(100));
            for (auto const &pLife : lives) {
                pLife->LookForHang();
            }
        }
        fStop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        ws::closesocket(stranger);
    }
    GRemoveEvtMgr("soak");
}

struct Held {
    std::size_t cHandles = HeldHandles();
    DWORD cThreads = PlatThreadCount();
};

// Threads that end by themselves may need a moment.
void CheckNothingLeft(Held const &first)
{
    bool const fFlat = WaitFor([&] {
        Held const now;
        return now.cHandles <= first.cHandles && now.cThreads <= first.cThreads;
    });
    if (!fFlat) {
        Held const now;
        Fail(std::to_string(now.cHandles) + " handles and " + std::to_string(now.cThreads) +
             " threads, after the first round " + std::to_string(first.cHandles) + " and " +
             std::to_string(first.cThreads));
    }
    if (g_cObjects != 0 || g_cMemory != 0 || g_cbMemory != 0) {
        Fail("counters at " + std::to_string(g_cObjects) + " objects, " +
             std::to_string(g_cMemory) + " blocks, " + std::to_string(g_cbMemory) + " bytes");
    }
    if (g_cClaimed > g_cPresses) {
        Fail("more presses reported than there were");
    }
}

// The most that was held in the second quarter of the run against the most in the last one: the first
// quarter is for what is made once.
void CheckMemory(char const *pszWhat, std::vector<double> const &megabytes, double rSlack)
{
    std::size_t const c = megabytes.size() / 4;
    char const *const pszJudge = std::getenv("QOMA_SOAK_MEMORY");
    if (c < 2 || (pszJudge != nullptr && *pszJudge == '0')) {
        return;
    }
    auto const it = megabytes.begin() + static_cast<std::ptrdiff_t>(c);
    double const early = *std::max_element(it, it + static_cast<std::ptrdiff_t>(c));
    double const late =
        *std::max_element(megabytes.end() - static_cast<std::ptrdiff_t>(c), megabytes.end());
    if (late > early + rSlack) {
        Fail(std::string("memory ") + pszWhat + " grows: " + std::to_string(early) + " MB, later " +
             std::to_string(late) + " MB");
    }
}

} // namespace

int main(int argc, char **argv)
{
    double const rMinutes = argc > 1 ? std::atof(argv[1]) : 0;
    if (argc > 3 || !(rMinutes > 0)) {
        std::fputs("usage: soak MINUTES [SEED]\n", stderr);
        return 2;
    }
    unsigned const nSeed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10))
                                    : std::random_device()();
    std::printf("soak: %g minutes, seed %u\n", rMinutes, nSeed);
    CTempDir const dir;
    auto const tpStart = Clock::now();
    auto const tpEnd = tpStart + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double, std::ratio<60>>(rMinutes));
    std::optional<Held> first;
    std::vector<double> held, inUse; // MB, after each round
    do {
        Round(nSeed + 10000 * static_cast<unsigned>(held.size()), dir);
        if (!first) {
            first.emplace();
        }
        CheckNothingLeft(*first);
        PlatMemoryType const memory = PlatMemory();
        held.push_back(static_cast<double>(memory.cbHeld) / 1e6);
        inUse.push_back(static_cast<double>(memory.cbInUse) / 1e6);
        std::printf("soak: %4.0f s, %lu operations, %lu notifications, %lu of %lu presses claimed; "
                    "%zu handles, %u threads, %.2f MB held, %.3f in use\n",
                    std::chrono::duration<double>(Clock::now() - tpStart).count(), g_cSteps.load(),
                    g_cHeard.load(), g_cClaimed.load(), g_cPresses.load(), first->cHandles,
                    static_cast<unsigned>(first->cThreads), held.back(), inUse.back());
        std::fflush(stdout);
    } while (Clock::now() < tpEnd);
    CheckMemory("held", held, kHeldSlack);
    CheckMemory("in use", inUse, kInUseSlack);
    std::puts("soak: done, nothing left, nothing grown");
    return 0;
}
