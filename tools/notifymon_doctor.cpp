#include "tools/notifymon_doctor.h"

#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "dolrtl/QOMADolC.h"
#include "session/listener.h"
#include "tools/notifymon_doctor_settings.h"
#include "tools/notifymon_monitor.h"
#include "tools/notifymon_output.h"
#include "tools/showable.h"
#include "tools/usage.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>

namespace {

constexpr char kPanelText[] = "notifymon doctor";
constexpr std::chrono::seconds kEchoLimit{2};       // from this machine to itself
constexpr std::chrono::seconds kDiscoveryLimit{10}; // a device takes its time to print
constexpr std::chrono::seconds kPickLimit{30};      // and a person to get there
constexpr std::chrono::seconds kStartLimit{15};     // several calls of the access library
constexpr std::chrono::seconds kTakeBackLimit{1};

// What to do about a result of the device's.
struct Advice {
    DWORD dwResult;
    char const *pszHint;
};

constexpr Advice kAdvice[] = {
    {eDR_CONNECT_REFUSED, "start the device, or name its port with --port"},
    {eDR_TIMEOUT, "is it switched on, and does every firewall let TCP to its port through?"},
    {eDR_UNREACHABLE, "is this machine on the device's network? Check the address and the route"},
    {eDR_BAD_ADDRESS, "check the spelling of --address, or give the dotted address"},
    {eDR_BAD_ANSWER, "something else than a device listens there: check --port"},
    {eDR_LINK_LOST, "something else than a device listens there, or the device turns us away"},
    {eDR_VERSION_MISMATCH, "bring the device and QOMADolC to the same version of the device link"},
    {eDR_DEVICE_FULL, "take entries of other clients off the panel"},
    {ERROR_INVALID_OWNER, "the agent takes devices whose identification holds VELLUMAX only"},
};

std::string HintFor(DWORD dwResult)
{
    for (Advice const &advice : kAdvice) {
        if (advice.dwResult == dwResult) {
            return advice.pszHint;
        }
    }
    return "see what the device itself reports";
}

// ---- Addresses, in host order

bool IsLoopback(DWORD dwHost)
{
    return dwHost >> 24 == 127;
}

bool IsLinkLocal(DWORD dwHost)
{
    return dwHost >> 16 == 0xA9FE; // 169.254.0.0/16
}

bool IsPrivate(DWORD dwHost)
{
    return dwHost >> 24 == 10 || dwHost >> 20 == 0xAC1 || dwHost >> 16 == 0xC0A8;
}

std::string HostText(DWORD dwHost)
{
    std::string const str = FormatAddress({dwHost, 0});
    return str.substr(0, str.find(':'));
}

// The first address of a host name or dotted address; 0 when it has none.
DWORD FindHost(std::string const &strName)
{
    hostent const *const pEntry = ws::gethostbyname(strName.c_str());
    if (pEntry == nullptr || pEntry->h_addr_list[0] == nullptr) {
        return 0;
    }
    sockaddr_in address{};
    std::copy_n(pEntry->h_addr_list[0], sizeof address.sin_addr,
                reinterpret_cast<char *>(&address.sin_addr));
    return FromSockAddr(address).dwHost;
}

// The address of ours that datagrams to the host leave from; 0 when there is no way to it.
DWORD RouteTo(DWORD dwHost)
{
    CLinkSocket const socket(ws::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address = ToSockAddr({dwHost, kLinkDefaultPort});
    int cb = sizeof address;
    auto *const pAddress = reinterpret_cast<sockaddr *>(&address);
    bool const bFound = ws::connect(socket.Get(), pAddress, cb) == 0 &&
                        ws::getsockname(socket.Get(), pAddress, &cb) == 0;
    return bFound ? FromSockAddr(address).dwHost : 0;
}

class CDoctor {
public:
    CDoctor(Options const &options, CEnding &ending)
        : m_options(options), m_ending(ending), m_sessions(ending, m_hooks)
    {
    }

    bool Run()
    {
        bool bNetwork = false;
        ExamineSettings(m_options, m_findings);
        for (SessionOptions const &device : m_options.devices) {
            bNetwork = bNetwork || !device.bLocal;
        }
        if (bNetwork) {
            CheckPort();
        }
        for (SessionOptions const &device : m_options.devices) {
            Examine(device);
        }
        if (m_ending.IsAsked()) {
            m_findings.Warn("ended before everything was looked at", "run it again, for longer");
        }
        bool const bWell = m_findings.Close() && !m_ending.IsAsked();
        m_sessions.End(bWell ? eXC_DONE : eXC_FAILED);
        return bWell;
    }

private:
    void Examine(SessionOptions const &device)
    {
        m_pDevice = &device;
        SessionOptions options = device;
        if (!m_options.bEntriesGiven) {
            options.rgstrOption = {kPanelText};
            options.dwFlags = eNF_SELECT;
        }
        m_pSession = &m_sessions.Start(options);
        CheckDevice();
        std::optional<LinkAddress> const address = CheckAddress();
        if (address) {
            CheckEcho(*address);
        }
        if (m_bConnected && !m_options.strDiscover.empty()) {
            CheckDiscovery();
        }
        if (m_bConnected && m_options.bPick) {
            CheckPick(options.rgstrOption);
        }
        m_pSession->End(SessionClock::now() + kTakeBackLimit);
        m_pSession->WaitForEnd(m_ending.Limit());
    }

    // ---- The network

    void CheckPort()
    {
        CLinkSocket const socket(ws::socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in address = ToSockAddr({});
        if (ws::bind(socket.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
            m_findings.Ok("port: a UDP port can be had; each connection gets one of its own");
        } else {
            m_findings.Fail("port: no UDP port can be bound, error " +
                                std::to_string(ws::WSAGetLastError()),
                            "free ports, or ask who forbids it to programs like this one");
        }
    }

    void CheckDevice()
    {
        m_bConnected = false;
        auto const change = FirstChange();
        if (!change) {
            m_findings.Fail("device: no answer in time", HintFor(eDR_TIMEOUT));
            return;
        }
        std::string const strDevice = "device: " + Showable(change->strAddress);
        if (change->eState == eSL_WAITING) {
            m_findings.Fail(strDevice + ": " + ResultText(change->dwResult),
                            HintFor(change->dwResult));
            return;
        }
        m_bConnected = true;
        m_findings.Ok(strDevice + ": it answers, and is of our line");
        if (change->eState == eSL_INCOMPLETE) {
            m_findings.Fail("panel: " + Showable(change->strWhat) +
                                " cannot be had: " + ResultText(change->dwResult),
                            HintFor(change->dwResult));
        } else {
            m_findings.Ok("panel: it takes " + std::to_string(change->rgstrOption.size()) +
                          (change->rgstrOption.size() == 1 ? " entry" : " entries"));
        }
    }

    // What becomes of the session's start; nothing when the end is asked for.
    std::optional<LinkChange> FirstChange()
    {
        auto const tpEnd = SessionClock::now() + kStartLimit;
        while (auto const event = m_sessions.Events().Take(tpEnd)) {
            auto const *const pChange = std::get_if<LinkChange>(&event->what);
            if (pChange != nullptr && event->strDevice == m_pDevice->strDevice) {
                return *pChange;
            }
        }
        return std::nullopt;
    }

    // The agent's address and port, if datagrams can be tried there.
    std::optional<LinkAddress> CheckAddress()
    {
        std::string const strAddress = m_pSession->AdvertisedAddress();
        if (strAddress.empty()) {
            m_findings.Detail("what the device is told cannot be found out without a link to it");
            return std::nullopt;
        }
        if (m_pDevice->bLocal) {
            m_findings.Ok("address: the device knows this client as " + Showable(strAddress));
            return std::nullopt;
        }
        LinkAddress address;
        if (!ParseHostAndPort(strAddress, &address)) {
            m_findings.Fail("address: the device is told " + Quoted(strAddress) +
                                ", which is nobody's address",
                            "this machine's name has no IPv4 address, or no UDP port was free; see "
                            "above, and what the name service says of it");
            return std::nullopt;
        }
        JudgeAddress(address, FindHost(m_pDevice->strAddress));
        return address;
    }

    void JudgeAddress(LinkAddress const &address, DWORD dwDevice)
    {
        std::string const strTold = "address: the device is told " + FormatAddress(address);
        if (dwDevice == 0 || IsLoopback(dwDevice)) {
            m_findings.Ok(strTold + (dwDevice == 0 ? "" : ", and is on this machine"));
            return;
        }
        DWORD const dwRoute = RouteTo(dwDevice);
        if (dwRoute == 0) {
            m_findings.Fail(strTold + ", and there is no way to " + HostText(dwDevice),
                            "connect this machine to the device's network");
        } else if (IsLoopback(address.dwHost)) {
            m_findings.Fail(strTold + ", which leads every other machine to itself",
                            "this machine's name leads to a loopback address: bring a network "
                            "interface up, and correct the hosts file");
        } else if (dwRoute != address.dwHost) {
            m_findings.Warn(strTold + ", but the way to it leaves from " + HostText(dwRoute),
                            "the first address of this machine's name is taken; unless the device "
                            "reaches that one as well, put " +
                                HostText(dwRoute) + " first");
        } else if (IsLinkLocal(address.dwHost) && !IsLinkLocal(dwDevice)) {
            m_findings.Warn(strTold + ", which is good on one cable only",
                            "get this machine an address of the network");
        } else if (IsPrivate(address.dwHost) && !IsPrivate(dwDevice)) {
            m_findings.Warn(
                strTold + ", which is not known outside this network",
                "put the device and this machine into one network, or join them by a VPN");
        } else {
            m_findings.Ok(strTold + ", from where the way to it leaves");
        }
    }

    // Through the agent: its socket, its echo, its callback. The number leaves the agent's filter alone.
    void CheckEcho(LinkAddress const &address)
    {
        std::string const strText =
            "notifymon doctor " + std::to_string(std::random_device{}()) + ";KICKSEQ=0;";
        if (!EchoComes(address, strText, kEchoLimit)) {
            m_findings.Fail(
                "echo: none came from " + FormatAddress(address),
                "a firewall on this machine holds UDP back, or the address is not ours");
        } else if (!Hears([&](Notification const &n) { return n.strOption == strText; },
                          kEchoLimit)) {
            m_findings.Fail("echo: it came, but no notification",
                            "a stranger's datagram was there first, see above; or else run with "
                            "--diagnostics and read the log");
        } else {
            m_findings.Ok("echo: a datagram of this machine's came back and was notified");
            if (m_options.strDiscover.empty() && !m_options.bPick) {
                m_findings.Detail("the way from the device is not tried: give --pick, and pick the "
                                  "entry there, or --discover TARGET");
            }
        }
    }

    // Whether such a notification comes. Tells of what silences the listener meanwhile.
    template <class Wanted>
    bool Hears(Wanted fnIsWanted, std::chrono::seconds limit)
    {
        auto const tpEnd = SessionClock::now() + limit;
        while (auto const event = m_sessions.Events().Take(tpEnd)) {
            auto const *const pChange = std::get_if<LinkChange>(&event->what);
            if (pChange != nullptr && pChange->eState == eSL_RESTARTING) {
                m_findings.Warn(
                    "listener: it was silenced: " + Showable(pChange->strWhat),
                    "keep UDP of others than the device from this machine; a client has "
                    "to start its link anew, as notifymon does by itself");
            }
            auto const *const pNotification = std::get_if<Notification>(&event->what);
            if (pNotification != nullptr && fnIsWanted(*pNotification)) {
                return true;
            }
        }
        return false;
    }

    void CheckPick(std::vector<std::string> const &entries)
    {
        m_findings.Detail("pick " + Quoted(entries.front()) +
                          " at the device now: waiting for it " +
                          std::to_string(kPickLimit.count()) + " seconds");
        auto const fnIsOurs = [&](Notification const &notification) {
            return notification.eType == eCT_SELECT_NOTIFY &&
                   std::find(entries.begin(), entries.end(), notification.strText) != entries.end();
        };
        if (Hears(fnIsOurs, kPickLimit)) {
            m_findings.Ok("pick: it was notified; the way from the device to here is free");
        } else {
            m_findings.Fail(
                "pick: nothing came of one",
                "if somebody picked it, see that every firewall lets UDP from the device "
                "to this machine through");
        }
    }

    void CheckDiscovery()
    {
        DWORD dwSequence = 0;
        std::string const strTarget = Showable(m_options.strDiscover);
        DWORD const dwResult = m_pSession->Discover(m_options.strDiscover, &dwSequence);
        if (dwResult != 0) {
            m_findings.Fail("discovery: " + strTarget + ": " +
                                DiscoveryProblem(m_options.strDiscover, dwResult),
                            "the target must exist, and a device must take jobs from it");
        } else if (!Hears([&](Notification const &n) { return n.srvq == dwSequence; },
                          kDiscoveryLimit)) {
            m_findings.Fail("discovery: no device answered the job in " + strTarget,
                            "does a device print what goes there, and does every firewall let UDP "
                            "from the device to this machine through?");
        } else {
            m_findings.Ok("discovery: a device answered; the way from it to here is free");
        }
    }

    Options const &m_options;
    CEnding &m_ending;
    CSocketLibrary m_library;
    CHooks m_hooks{""}; // a doctor hands nothing out
    CSessions m_sessions;
    CFindings m_findings;
    SessionOptions const *m_pDevice = nullptr; // under examination
    CSession *m_pSession = nullptr;            // with it
    bool m_bConnected = false;                 // it is
};

} // namespace

bool RunDoctor(Options const &options, CEnding &ending)
{
    return CDoctor(options, ending).Run();
}
