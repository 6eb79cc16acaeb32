#include "hub/settings.h"

#include "devlink/link_stream.h"
#include "session/subscriptions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <toml++/toml.h>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

// What is wrong, and where. Never leaves this file.
struct Problem {
    toml::source_index nLine;
    std::string strWhat;
};

[[noreturn]] void Refuse(toml::node const &node, std::string strWhat)
{
    throw Problem{node.source().begin.line, std::move(strWhat)};
}

std::string InQuotes(std::string const &str)
{
    return "\"" + str + "\"";
}

std::string VariableOf(char const *pszName)
{
    char const *const psz = std::getenv(pszName);
    return psz != nullptr ? psz : "";
}

std::string TypeName(toml::node const &node)
{
    std::ostringstream text;
    text << node.type();
    return text.str();
}

// A table whose keys are taken one by one, each of one type. What nobody took at the end was not meant for us: a
// slip of the pen must not pass for a default.
class CTable {
public:
    CTable(toml::table const &table, std::string strWhere)
        : m_table(table), m_strWhere(std::move(strWhere))
    {
    }

    toml::node const *Find(char const *pszKey)
    {
        m_taken.insert(pszKey);
        return m_table.get(pszKey);
    }
    toml::node const &Need(char const *pszKey)
    {
        if (toml::node const *const pNode = Find(pszKey)) {
            return *pNode;
        }
        Refuse(m_table, std::string("\"") + pszKey + "\" is missing in " + m_strWhere);
    }
    // Says what it should be, of what kind it is.
    [[noreturn]] void RefuseType(char const *pszKey, toml::node const &node, char const *pszWanted)
    {
        Refuse(node, InQuotes(pszKey) + " in " + m_strWhere + " has to be " + pszWanted +
                         ", and is of the type " + TypeName(node));
    }

    std::string String(char const *pszKey, toml::node const &node)
    {
        auto const *const pValue = node.as_string();
        if (pValue == nullptr) {
            RefuseType(pszKey, node, "a text in quotes");
        }
        if (pValue->get().find_first_of(std::string("\0\n\r", 3)) != std::string::npos) {
            Refuse(node, InQuotes(pszKey) + " has a line end or a NUL in it");
        }
        return pValue->get();
    }
    void String(char const *pszKey, std::string *pstr)
    {
        if (toml::node const *const pNode = Find(pszKey)) {
            *pstr = String(pszKey, *pNode);
        }
    }
    std::string NeedString(char const *pszKey)
    {
        toml::node const &node = Need(pszKey);
        std::string strValue = String(pszKey, node);
        if (strValue.empty()) {
            Refuse(node, InQuotes(pszKey) + " is empty");
        }
        return strValue;
    }
    // One text, or a list of them, none of them empty.
    void Strings(char const *pszKey, std::vector<std::string> *prgstr)
    {
        toml::node const *const pNode = Find(pszKey);
        if (pNode == nullptr) {
            return;
        }
        prgstr->clear();
        if (auto const *const pArray = pNode->as_array()) {
            for (toml::node const &node : *pArray) {
                prgstr->push_back(String(pszKey, node));
            }
        } else if (pNode->is_string()) {
            prgstr->push_back(String(pszKey, *pNode));
        } else {
            RefuseType(pszKey, *pNode, "a text in quotes or a list of such");
        }
        if (prgstr->empty() || std::find(prgstr->begin(), prgstr->end(), "") != prgstr->end()) {
            Refuse(*pNode, InQuotes(pszKey) + " is empty, or has an empty text in it");
        }
    }
    void Bool(char const *pszKey, bool *pb)
    {
        if (toml::node const *const pNode = Find(pszKey)) {
            if (!pNode->is_boolean()) {
                RefuseType(pszKey, *pNode, "true or false");
            }
            *pb = pNode->as_boolean()->get();
        }
    }
    template <class T>
    void Number(char const *pszKey, T *pn, std::int64_t nLeast, std::int64_t nMost)
    {
        toml::node const *const pNode = Find(pszKey);
        if (pNode == nullptr) {
            return;
        }
        if (!pNode->is_integer()) {
            RefuseType(pszKey, *pNode, "a whole number");
        }
        std::int64_t const nValue = pNode->as_integer()->get();
        if (nValue < nLeast || nValue > nMost) {
            Refuse(*pNode, InQuotes(pszKey) + " has to be from " + std::to_string(nLeast) + " to " +
                               std::to_string(nMost));
        }
        *pn = static_cast<T>(nValue);
    }
    // "500ms", "10s", "5m", "24h", "30d".
    template <class Duration>
    void Time(char const *pszKey, Duration *pDuration, milliseconds least = milliseconds(1))
    {
        if (toml::node const *const pNode = Find(pszKey)) {
            *pDuration =
                std::chrono::floor<Duration>(TimeOf(pszKey, *pNode, String(pszKey, *pNode), least));
        }
    }

    toml::table const &Table(char const *pszKey, toml::node const &node)
    {
        auto const *const pTable = node.as_table();
        if (pTable == nullptr) {
            RefuseType(pszKey, node, "a table");
        }
        return *pTable;
    }
    // The tables of [[key]].
    std::vector<toml::table const *> Tables(char const *pszKey)
    {
        std::vector<toml::table const *> tables;
        toml::node const *const pNode = Find(pszKey);
        if (pNode == nullptr) {
            return tables;
        }
        auto const *const pArray = pNode->as_array();
        if (pArray == nullptr) {
            RefuseType(pszKey, *pNode,
                       ("a list, begun by [[" + std::string(pszKey) + "]]").c_str());
        }
        for (toml::node const &node : *pArray) {
            tables.push_back(&Table(pszKey, node));
        }
        return tables;
    }

    void RefuseTheRest()
    {
        for (auto const &[key, node] : m_table) {
            if (m_taken.count(std::string(key.str())) == 0) {
                throw Problem{key.source().begin.line, "there is no " +
                                                           InQuotes(std::string(key.str())) +
                                                           " in " + m_strWhere};
            }
        }
    }

    toml::table const &Node() const { return m_table; }

private:
    milliseconds TimeOf(char const *pszKey, toml::node const &node, std::string const &strValue,
                        milliseconds least)
    {
        constexpr std::array<std::pair<std::string_view, std::int64_t>, 5> kUnits{
            {{"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}, {"d", 86400000}}};
        constexpr std::int64_t kMost = 3650LL * 86400000;
        std::int64_t nCount = 0;
        auto const [pEnd, error] =
            std::from_chars(strValue.data(), strValue.data() + strValue.size(), nCount);
        std::string_view const strUnit(pEnd, strValue.data() + strValue.size());
        for (auto const &[strName, nFactor] : kUnits) {
            if (error == std::errc() && strUnit == strName && nCount >= 0 &&
                nCount <= kMost / nFactor && nCount * nFactor >= least.count()) {
                return milliseconds(nCount * nFactor);
            }
        }
        Refuse(node, InQuotes(pszKey) +
                         " has to be a time such as \"500ms\", \"10s\", \"5m\", "
                         "\"24h\" or \"30d\", from " +
                         std::to_string(least.count()) + " ms to ten years");
    }

    toml::table const &m_table;
    std::string const m_strWhere; // for people: "[journal]"
    std::set<std::string> m_taken;
};

bool IsPlainName(std::string const &str)
{
    return !str.empty() && str.size() <= 63 && str.find_first_not_of('.') != std::string::npos &&
           std::all_of(str.begin(), str.end(), [](char ch) {
               return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                      (ch >= '0' && ch <= '9') || ch == '-' || ch == '_' || ch == '.';
           });
}

void CheckName(toml::node const &node, std::string const &strName)
{
    if (!IsPlainName(strName)) {
        Refuse(node, InQuotes(strName) +
                         " is no name of 1 to 63 letters, digits, \"-\", \"_\" and \".\"");
    }
}

// ---- Files

// Nothing when it cannot be read, a folder's name included.
std::optional<std::string> ReadWhole(std::string const &strPath)
{
    try {
        std::ifstream file(strPath, std::ios::binary);
        std::string strText(std::istreambuf_iterator<char>(file), {});
        return file ? std::optional(std::move(strText)) : std::nullopt;
    } catch (std::ios_base::failure const &) {
        return std::nullopt;
    }
}

std::string PathOf(fs::path const &folder, std::string const &strGiven)
{
    fs::path const path(strGiven);
    if (path.is_absolute()) {
        return strGiven;
    }
    std::error_code error;
    fs::path const credential = fs::path(VariableOf("CREDENTIALS_DIRECTORY")) / path;
    if (credential.is_absolute() && fs::exists(credential, error)) {
        return credential.string();
    }
    return (folder / path).lexically_normal().string();
}

class CReader {
public:
    explicit CReader(fs::path folder) : m_folder(std::move(folder)) {}

    HubSettings Read(toml::table const &root)
    {
        CTable table(root, "the settings");
        HubSettings settings = DefaultHubSettings();
        settings.devices.clear();
        settings.sinks.clear();
        ReadName(table, "site", &settings.strSite);
        ReadName(table, "hub", &settings.strHub);
        ReadJournal(table, &settings.journal);
        ReadListen(table, "metrics", &settings.metrics);
        ReadListen(table, "web", &settings.web);
        for (toml::table const *const pDevice : table.Tables("device")) {
            settings.devices.push_back(ReadDevice(*pDevice));
        }
        for (toml::table const *const pSink : table.Tables("sink")) {
            settings.sinks.push_back(ReadSink(*pSink, settings));
        }
        for (toml::table const *const pRule : table.Tables("rule")) {
            settings.rules.push_back(ReadRule(*pRule));
        }
        table.RefuseTheRest();
        if (settings.devices.empty()) {
            Refuse(root, "there is no [[device]]");
        }
        return settings;
    }

private:
    static void ReadName(CTable &table, char const *pszKey, std::string *pstrName)
    {
        if (toml::node const *const pNode = table.Find(pszKey)) {
            *pstrName = table.String(pszKey, *pNode);
            CheckName(*pNode, *pstrName);
        }
    }

    void ReadJournal(CTable &table, HubJournalSettings *pJournal)
    {
        toml::node const *const pNode = table.Find("journal");
        if (pNode == nullptr) {
            return;
        }
        CTable journal(table.Table("journal", *pNode), "[journal]");
        if (journal.Find("file") != nullptr) {
            pJournal->strFile = (m_folder / journal.NeedString("file")).lexically_normal().string();
        }
        journal.Time("keep", &pJournal->keep, seconds(60));
        std::uint64_t cMegabytes = pJournal->cbKeep >> 20;
        journal.Number("keep_megabytes", &cMegabytes, 1, 1 << 20);
        pJournal->cbKeep = cMegabytes << 20;
        journal.Number("waiting", &pJournal->cWaiting, 100, 10000000);
        journal.RefuseTheRest();
    }

    static void ReadListen(CTable &table, char const *pszKey,
                           std::optional<HubListenSettings> *pListen)
    {
        toml::node const *const pNode = table.Find(pszKey);
        if (pNode == nullptr) {
            return;
        }
        CTable listen(table.Table(pszKey, *pNode), "[" + std::string(pszKey) + "]");
        HubListenSettings settings;
        listen.String("address", &settings.strAddress);
        listen.Need("port");
        listen.Number("port", &settings.wPort, 0, 65535);
        listen.RefuseTheRest();
        *pListen = settings;
    }

    // ---- Devices

    SessionOptions ReadDevice(toml::table const &node)
    {
        CTable table(node, "[[device]]");
        SessionOptions device;
        toml::node const &name = table.Need("name");
        device.strDevice = table.String("name", name);
        CheckName(name, device.strDevice);
        if (!m_devices.insert(device.strDevice).second) {
            Refuse(name, "there are two devices of the name " + InQuotes(device.strDevice));
        }
        table.Bool("local", &device.bLocal);
        if (!device.bLocal) {
            device.strAddress = table.NeedString("address");
        } else if (toml::node const *const pAddress = table.Find("address")) {
            device.strAddress = table.String("address", *pAddress);
            if (!device.strAddress.empty() && !IsPlainName(device.strAddress)) {
                Refuse(*pAddress,
                       "with \"local\" the \"address\" is the name by which the device is "
                       "to know this client, of letters, digits, \"-\", \"_\" and \".\"");
            }
        }
        if (table.Find("port") != nullptr) {
            table.Number("port", &device.dwPort, 1, 65535);
        }
        ReadHear(table, &device);
        ReadEntries(table, &device);
        table.RefuseTheRest();
        return device;
    }

    static void ReadHear(CTable &table, SessionOptions *pDevice)
    {
        std::vector<std::string> rgstrHear;
        table.Strings("hear", &rgstrHear);
        pDevice->dwFlags = 0;
        for (std::string const &strHear : rgstrHear) {
            auto const it = std::find_if(kSubscriptions.begin(), kSubscriptions.end(),
                                         [&](auto const &row) { return strHear == row.pszName; });
            if (it == kSubscriptions.end()) {
                Refuse(*table.Find("hear"),
                       "\"hear\" has select, adf, button and fax, and not " + InQuotes(strHear));
            }
            if (it->bLocalOnly && !pDevice->bLocal) {
                Refuse(*table.Find("hear"), InQuotes(strHear) + " is not heard over a network");
            }
            pDevice->dwFlags |= it->dwFlag;
        }
        if (rgstrHear.empty()) {
            pDevice->dwFlags = AllSubscriptions(pDevice->bLocal);
        }
    }

    static void ReadEntries(CTable &table, SessionOptions *pDevice)
    {
        pDevice->rgstrOption = {"notifyhub"};
        table.Strings("entries", &pDevice->rgstrOption);
        for (std::string const &strEntry : pDevice->rgstrOption) {
            if (strEntry.size() > EntryLimit(pDevice->bLocal)) {
                Refuse(*table.Find("entries"), "an entry has " + std::to_string(strEntry.size()) +
                                                   " bytes, and over this link " +
                                                   std::to_string(EntryLimit(pDevice->bLocal)) +
                                                   " are the limit");
            }
        }
    }

    // ---- Sinks

    HubSinkSettings ReadSink(toml::table const &node, HubSettings const &settings)
    {
        CTable table(node, "[[sink]]");
        HubSinkSettings sink;
        toml::node const &name = table.Need("name");
        sink.strName = table.String("name", name);
        CheckName(name, sink.strName);
        if (!m_sinks.insert(sink.strName).second) {
            Refuse(name, "there are two sinks of the name " + InQuotes(sink.strName));
        }
        table.Time("first_pause", &sink.firstPause);
        table.Time("longest_pause", &sink.longestPause);
        table.Time("give_up", &sink.giveUp, seconds(1));
        toml::node const &type = table.Need("type");
        std::string const strType = table.String("type", type);
        if (strType == "print") {
            HubPrintSettings print;
            table.Bool("json", &print.bJson);
            sink.kind = print;
        } else if (strType == "exec") {
            sink.kind = ReadExec(table);
        } else if (strType == "webhook") {
            sink.kind = ReadWebhook(table);
        } else if (strType == "mqtt") {
            sink.kind = ReadMqtt(table, settings);
        } else if (strType == "desktop") {
            HubDesktopSettings desktop;
            table.String("bus", &desktop.strBus);
            table.Time("limit", &desktop.limit);
            sink.kind = desktop;
        } else {
            Refuse(type, "a sink's \"type\" is print, exec, webhook, mqtt or desktop, and not " +
                             InQuotes(strType));
        }
        table.RefuseTheRest();
        return sink;
    }

    static HubExecSettings ReadExec(CTable &table)
    {
        HubExecSettings exec;
        table.Need("command");
        table.Strings("command", &exec.rgstrArgument);
        table.Time("limit", &exec.limit);
        return exec;
    }

    HubWebhookSettings ReadWebhook(CTable &table)
    {
        HubWebhookSettings webhook;
        webhook.strUrl = table.NeedString("url");
        if (!webhook.strUrl.starts_with("https://") && !webhook.strUrl.starts_with("http://")) {
            Refuse(table.Need("url"), "a \"url\" begins with https:// or http://");
        }
        webhook.strCaFile = File(table, "ca_file");
        if (toml::node const *const pNode = table.Find("header_file")) {
            std::istringstream lines(Secret(*pNode, table.String("header_file", *pNode)));
            for (std::string strLine; std::getline(lines, strLine);) {
                if (strLine.find(':') == std::string::npos || strLine.front() == ':') {
                    Refuse(*pNode, "a line of the \"header_file\" is not \"Name: value\"");
                }
                webhook.rgstrHeader.push_back(strLine);
            }
        }
        table.Time("limit", &webhook.limit);
        return webhook;
    }

    HubMqttSettings ReadMqtt(CTable &table, HubSettings const &settings)
    {
        HubMqttSettings mqtt;
        mqtt.strHost = table.NeedString("host");
        mqtt.strSite = settings.strSite;
        mqtt.strHub = settings.strHub;
        table.Bool("tls", &mqtt.bTls);
        mqtt.wPort = mqtt.bTls ? 8883 : 1883;
        table.Number("port", &mqtt.wPort, 1, 65535);
        mqtt.strCaFile = File(table, "ca_file");
        mqtt.strCertFile = File(table, "cert_file");
        mqtt.strKeyFile = File(table, "key_file");
        if (mqtt.strCertFile.empty() != mqtt.strKeyFile.empty()) {
            Refuse(table.Node(), "\"cert_file\" and \"key_file\" come together");
        }
        if (!mqtt.bTls && !(mqtt.strCaFile + mqtt.strCertFile).empty()) {
            Refuse(table.Node(), "certificates need \"tls = true\"");
        }
        table.String("user", &mqtt.strUser);
        if (toml::node const *const pNode = table.Find("password_file")) {
            mqtt.strPassword = Secret(*pNode, table.String("password_file", *pNode));
            if (mqtt.strUser.empty()) {
                Refuse(*pNode, "a \"password_file\" needs a \"user\"");
            }
        }
        ReadTopic(table, "base", &mqtt.strBase);
        table.Bool("home_assistant", &mqtt.bHomeAssistant);
        ReadTopic(table, "home_assistant_base", &mqtt.strHomeAssistantBase);
        table.Bool("standby", &mqtt.bStandby);
        table.Time("limit", &mqtt.limit);
        return mqtt;
    }

    static void ReadTopic(CTable &table, char const *pszKey, std::string *pstrTopic)
    {
        toml::node const *const pNode = table.Find(pszKey);
        if (pNode == nullptr) {
            return;
        }
        *pstrTopic = table.String(pszKey, *pNode);
        if (pstrTopic->empty() || pstrTopic->find_first_of("+#$") != std::string::npos ||
            pstrTopic->front() == '/' || pstrTopic->back() == '/') {
            Refuse(*pNode, InQuotes(pszKey) + " is no topic to put others below");
        }
    }

    // The path of a file that is there; empty without the key.
    std::string File(CTable &table, char const *pszKey)
    {
        toml::node const *const pNode = table.Find(pszKey);
        if (pNode == nullptr) {
            return {};
        }
        std::string const strPath = PathOf(m_folder, table.String(pszKey, *pNode));
        if (!ReadWhole(strPath)) {
            Refuse(*pNode, "cannot read " + strPath);
        }
        return strPath;
    }

    // What a file holds, without the line end that editors leave.
    std::string Secret(toml::node const &node, std::string const &strGiven)
    {
        std::string const strPath = PathOf(m_folder, strGiven);
        std::optional<std::string> const strRead = ReadWhole(strPath);
        if (!strRead) {
            Refuse(node, "cannot read " + strPath);
        }
        std::string strSecret = *strRead;
        while (!strSecret.empty() && (strSecret.back() == '\n' || strSecret.back() == '\r')) {
            strSecret.pop_back();
        }
        if (strSecret.empty()) {
            Refuse(node, strPath + " is empty");
        }
        return strSecret;
    }

    HubRule ReadRule(toml::table const &node)
    {
        CTable table(node, "[[rule]]");
        HubRule rule;
        table.Strings("device", &rule.rgstrDevice);
        table.Strings("type", &rule.rgstrType);
        table.Strings("text", &rule.rgstrText);
        table.Need("sink");
        table.Strings("sink", &rule.rgstrSink);
        for (std::string const &strSink : rule.rgstrSink) {
            if (m_sinks.count(strSink) == 0) {
                Refuse(table.Need("sink"), "there is no sink of the name " + InQuotes(strSink));
            }
        }
        table.RefuseTheRest();
        return rule;
    }

    fs::path const m_folder;
    std::set<std::string> m_devices;
    std::set<std::string> m_sinks;
};

std::string HostName()
{
    CSocketLibrary const library;
    char szName[256] = "";
    (void)ws::gethostname(szName, sizeof szName);
    return IsPlainName(szName) ? szName : "hub";
}

fs::path StateFolder()
{
    std::string const strService = VariableOf("STATE_DIRECTORY");
    std::string const strState = VariableOf("XDG_STATE_HOME");
    if (!strService.empty()) {
        return strService.substr(0, strService.find(':'));
    }
    return (fs::path(strState).is_absolute() ? fs::path(strState)
                                             : fs::path(VariableOf("HOME")) / ".local/state") /
           "notifyhub";
}

} // namespace

HubSettings DefaultHubSettings()
{
    HubSettings settings;
    settings.strHub = HostName();
    settings.journal.strFile = (StateFolder() / "journal.db").string();
    SessionOptions device;
    device.strDevice = "local";
    device.bLocal = true;
    device.dwFlags = AllSubscriptions(/*bLocal=*/true);
    device.rgstrOption = {"notifyhub"};
    settings.devices.push_back(device);
    HubSinkSettings print;
    print.strName = "print";
    settings.sinks.push_back(print);
    return settings;
}

std::optional<HubSettings> ReadHubSettings(std::string const &strFile, std::string *pstrError)
{
    std::string const strBefore = strFile + ":";
    try {
        std::optional<std::string> const strText = ReadWhole(strFile);
        if (!strText) {
            *pstrError = "cannot read " + strFile;
            return std::nullopt;
        }
        return CReader(fs::absolute(strFile).parent_path()).Read(toml::parse(*strText, strFile));
    } catch (Problem const &problem) {
        *pstrError = strBefore + std::to_string(problem.nLine) + ": " + problem.strWhat;
    } catch (toml::parse_error const &error) {
        *pstrError = strBefore + std::to_string(error.source().begin.line) + ": " +
                     std::string(error.description());
    }
    std::replace(pstrError->begin(), pstrError->end(), '\n', ' ');
    return std::nullopt;
}
