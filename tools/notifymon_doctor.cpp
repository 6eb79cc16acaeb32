#include "tools/notifymon_doctor.h"

#include "devlink/link_protocol.h"
#include "devlink/link_stream.h"
#include "dolrtl/QOMADolC.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/window.h"
#include "tools/notifymon_settings.h"
#include "tools/showable.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

constexpr char kPanelText[] = "notifymon doctor";
constexpr std::chrono::seconds kEchoLimit{2};       // from this machine to itself
constexpr std::chrono::seconds kDiscoveryLimit{10}; // a device takes its time to print

/* What to do about a result of the device's. */
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

/* Prints the findings and counts those that are not well. */
class CFindings {
public:
    void Ok(std::string const &strWhat) { Print("ok       " + strWhat); }
    void Warn(std::string const &strWhat, std::string const &strHint)
    {
        Print("warning  " + strWhat);
        Detail("do: " + strHint);
        ++m_cWarnings;
    }
    void Fail(std::string const &strWhat, std::string const &strHint)
    {
        Print("FAILURE  " + strWhat);
        Detail("do: " + strHint);
        ++m_cFailures;
    }
    void Detail(std::string const &strWhat) { Print("         " + strWhat); }

    bool Close()
    {
        Print(std::to_string(m_cFailures) + " failures, " + std::to_string(m_cWarnings) +
              " warnings");
        return m_cFailures == 0;
    }

private:
    static void Print(std::string const &strLine)
    {
        std::puts(strLine.c_str());
        std::fflush(stdout);
    }

    unsigned m_cWarnings = 0;
    unsigned m_cFailures = 0;
};

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

/* The first address of a host name or dotted address; 0 when it has none. */
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

/* The address of ours that datagrams to the host leave from; 0 when there is no way to it. */
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

/* An empty file with a new name in the temporary folder, for a scope. */
class CScratchFile {
public:
    CScratchFile()
    {
        std::error_code error;
        m_path = std::filesystem::temp_directory_path(error) /
                 ("notifymon-doctor-" + std::to_string(std::random_device{}()));
        HANDLE const h = CreateFileA(m_path.string().c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                     nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        m_bMade = h != INVALID_HANDLE_VALUE;
        if (m_bMade) {
            CloseHandle(h);
        }
    }
    ~CScratchFile()
    {
        std::error_code error;
        if (m_bMade) {
            std::filesystem::remove(m_path, error);
        }
    }
    CScratchFile(CScratchFile const &) = delete;
    CScratchFile &operator=(CScratchFile const &) = delete;

    std::string Name() const { return m_path.string(); }
    std::string Read() const
    {
        std::ifstream file(m_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::filesystem::path m_path;
    bool m_bMade = false;
};

/* What stands between "KEY=" and the next ";". */
std::string ClauseOf(std::string const &strText, std::string const &strKey)
{
    std::size_t const n = strText.find(strKey);
    if (n == std::string::npos) {
        return {};
    }
    std::size_t const nBegin = n + strKey.size();
    return strText.substr(nBegin, strText.find(';', nBegin) - nBegin);
}

class CDoctor {
public:
    explicit CDoctor(DoctorOptions const &options) : m_options(options), m_client(ClientOptions())
    {
    }

    bool Run()
    {
        if (CheckRegistry()) {
            CheckModule();
        }
        if (!m_options.monitor.bLocal) {
            CheckPort();
        }
        CheckDevice();
        std::optional<LinkAddress> const address = CheckAddress();
        if (address) {
            CheckEcho(*address);
        }
        if (!m_options.strDiscover.empty()) {
            CheckDiscovery();
        }
        m_client.Unsubscribe();
        m_client.Disconnect();
        return m_findings.Close();
    }

private:
    MonitorOptions ClientOptions() const
    {
        MonitorOptions monitor = m_options.monitor;
        monitor.rgstrOption = {kPanelText};
        monitor.dwFlags = eNF_SELECT;
        return monitor;
    }

    // ---- Settings, log, viewer

    /* False when there is nothing to read settings from. */
    bool CheckRegistry()
    {
        bool const bChosen = !m_options.strRegistry.empty();
        if (bChosen) {
            PlatSetRegistryFile(m_options.strRegistry.c_str()); // a refusal is asked for below
        }
        std::string const strFile = SettingsFile();
        std::string const strProblem = SettingsProblem();
        std::string const strNamed = "settings: " + Showable(strFile) +
                                     (bChosen ? ", named by --registry" : ", the usual place");
        std::error_code error;
        if (!strProblem.empty()) {
            m_findings.Fail("settings refused: " + Showable(strProblem),
                            "mend what it says; docs/registry-file.md tells the format");
            return false;
        }
        if (strFile.empty()) {
            m_findings.Ok("settings: the system's registry");
            return true;
        }
        if (std::filesystem::exists(strFile, error)) {
            m_findings.Ok(strNamed);
            return true;
        }
        if (bChosen) {
            m_findings.Fail(strNamed + ": there is no such file", "check the name");
            return false;
        }
        m_findings.Ok(strNamed + ": there is no such file, so all settings have their defaults");
        return true;
    }

    void CheckModule()
    {
        std::vector<std::string> const modules = ConfiguredModules();
        if (m_options.strDiagnostics.empty()) {
            m_findings.Ok("diagnostics: off, since there is no --diagnostics NAME");
            for (std::string const &strModule : modules) {
                m_findings.Detail("there are settings for " + Showable(strModule));
            }
            return;
        }
        std::string const strKey = ModuleKey(m_options.strDiagnostics);
        std::vector<Setting> const settings = SettingsOf(m_options.strDiagnostics);
        bool bSet = false;
        for (Setting const &setting : settings) {
            bSet = bSet || (setting.strKey.starts_with(strKey) && setting.eSource == eSS_REGISTRY);
        }
        if (bSet) {
            m_findings.Ok("diagnostics: settings of " + Showable(m_options.strDiagnostics));
        } else {
            m_findings.Warn("diagnostics: nothing is set for " + Showable(m_options.strDiagnostics),
                            "copy docs/example.reg and give the module's key this name");
        }
        for (Setting const &setting : settings) {
            m_findings.Detail(SettingLine(setting));
        }
        CheckLog(settings, strKey + "\\File");
        if (FindSetting(settings, "TraceDeck", "DebugFile").qwNumber != 0) {
            std::string const strFile = FindSetting(settings, "TraceDeck", "DebugFilePath").strText;
            CheckWritable("viewer: off; its lines go to " + Showable(strFile) + ", which", strFile,
                          "");
        } else {
            CheckViewer(settings, strKey + "\\TD");
        }
    }

    void CheckLog(std::vector<Setting> const &settings, std::string const &strKey)
    {
        std::string const strName = FindSetting(settings, strKey, "File Name").strText;
        if (FindSetting(settings, strKey, "State").qwNumber != 1 || strName.empty()) {
            m_findings.Warn("log: off", "set \"State\" to 1 and \"File Name\" in " + strKey);
            return;
        }
        bool const bAppends = FindSetting(settings, strKey, "Append").qwNumber != 0;
        CheckWritable("log: " + Showable(strName), strName,
                      bAppends ? "" : "; each start empties it, since \"Append\" is 0");
    }

    /* Opens the file as the writers of lines do, but what it holds stays. */
    void CheckWritable(std::string const &strWhat, std::string const &strName,
                       std::string const &strMore)
    {
        HANDLE const h =
            CreateFileA(strName.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD const dwError = GetLastError();
        if (h == INVALID_HANDLE_VALUE) {
            m_findings.Fail(strWhat + " cannot be written, error " + std::to_string(dwError),
                            "make its folder, see who may write there, or change its name");
            return;
        }
        CloseHandle(h);
        if (dwError != ERROR_ALREADY_EXISTS) {
            std::error_code error;
            std::filesystem::remove(strName, error);
        }
        m_findings.Ok(strWhat + " can be written" + strMore);
    }

    void CheckViewer(std::vector<Setting> const &settings, std::string const &strKey)
    {
        if (FindSetting(settings, strKey, "State").qwNumber != 1) {
            return;
        }
        std::string const strTitle = FindSetting(settings, "TraceDeck", "Title").strText;
        if (FindWindowA(nullptr, strTitle.c_str()) != nullptr) {
            m_findings.Ok("viewer: " + Quoted(strTitle) + " is there");
        } else {
            m_findings.Warn("viewer: no window has the title " + Quoted(strTitle),
                            "start tracedeck with that --title first");
        }
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
        MonitorOptions const &monitor = m_options.monitor;
        DWORD const dwPort = monitor.dwPort == kNotifyNoPort ? kLinkDefaultPort : monitor.dwPort;
        std::string const strDevice =
            "device: " + (monitor.bLocal ? "this machine" : Showable(monitor.strAddress)) +
            ", TCP port " + std::to_string(dwPort);
        DWORD const dwResult = m_client.Connect();
        if (dwResult != 0) {
            m_findings.Fail(strDevice + ": " + ResultText(dwResult), HintFor(dwResult));
            return;
        }
        m_findings.Ok(strDevice + ": it answers, and is of our line");
        DWORD const dwPlaced = m_client.Subscribe();
        if (dwPlaced != 0) {
            m_findings.Fail("panel: no entry can be placed: " + ResultText(dwPlaced),
                            HintFor(dwPlaced));
            return;
        }
        m_findings.Ok("panel: it takes an entry");
    }

    /* What the device is told, out of a job that the agent writes; empty when it writes none. */
    std::string AdvertisedAddress()
    {
        CScratchFile const job;
        DWORD dwSequence = 0;
        if (m_client.Discover(job.Name(), &dwSequence) != 0) {
            return {};
        }
        return ClauseOf(job.Read(), "NETADDR=");
    }

    /* The agent's address and port, if datagrams can be tried there. */
    std::optional<LinkAddress> CheckAddress()
    {
        std::string const strAddress = AdvertisedAddress();
        if (m_options.monitor.bLocal) {
            if (!strAddress.empty()) {
                m_findings.Ok("address: the device knows this client as " + Showable(strAddress));
            }
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
        JudgeAddress(address, FindHost(m_options.monitor.strAddress));
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

    /* Through the agent: its socket, its echo, its callback. */
    void CheckEcho(LinkAddress const &address)
    {
        CLinkSocket const socket(ws::socket(AF_INET, SOCK_DGRAM, 0));
        std::string const strText =
            "notifymon doctor " + std::to_string(std::random_device{}()) + ";";
        auto const cbText = static_cast<int>(strText.size());
        sockaddr_in const to = ToSockAddr(address);
        ws::sendto(socket.Get(), strText.data(), cbText, 0, reinterpret_cast<sockaddr const *>(&to),
                   sizeof to);
        char ab[512];
        bool const bEchoed =
            PlatSocketWait(socket.Get(), /*bWrite=*/false,
                           static_cast<DWORD>(std::chrono::milliseconds(kEchoLimit).count())) ==
                1 &&
            ws::recv(socket.Get(), ab, sizeof ab, 0) == cbText;
        if (!bEchoed) {
            m_findings.Fail(
                "echo: none came from " + FormatAddress(address),
                "a firewall on this machine holds UDP back, or the address is not ours");
        } else if (!Hears(strText, kEchoLimit)) {
            m_findings.Fail("echo: it came, but no notification",
                            "run with --diagnostics and read the log");
        } else {
            m_findings.Ok("echo: a datagram of this machine's came back and was notified");
            if (m_options.strDiscover.empty()) {
                m_findings.Detail("the way from the device is not tried: pick an entry there, or "
                                  "give --discover TARGET");
            }
        }
    }

    bool Hears(std::string const &strPart, std::chrono::seconds limit)
    {
        auto const tpEnd = std::chrono::steady_clock::now() + limit;
        while (auto const notification = m_client.Next(tpEnd)) {
            if (notification->strOption.find(strPart) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    void CheckDiscovery()
    {
        DWORD dwSequence = 0;
        std::string const strTarget = Showable(m_options.strDiscover);
        DWORD const dwResult = m_client.Discover(m_options.strDiscover, &dwSequence);
        if (dwResult != 0) {
            m_findings.Fail("discovery: " + strTarget + ": " + ResultText(dwResult),
                            "the target must exist, and a device must take jobs from it");
        } else if (!Hears("SRVQ=" + std::to_string(dwSequence) + ";", kDiscoveryLimit)) {
            m_findings.Fail("discovery: no device answered the job in " + strTarget,
                            "does a device print what goes there, and does every firewall let UDP "
                            "from the device to this machine through?");
        } else {
            m_findings.Ok("discovery: a device answered; the way from it to here is free");
        }
    }

    DoctorOptions const &m_options;
    CSocketLibrary m_library;
    CMonitorClient m_client;
    CFindings m_findings;
};

} // namespace

bool RunDoctor(DoctorOptions const &options)
{
    return CDoctor(options).Run();
}
