#include "hub/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

class HubSettingsTest : public testing::Test {
protected:
    HubSettingsTest() { Fill("password", "geheim\n"); }
    ~HubSettingsTest() override { fs::remove_all(folder); }

    void Fill(std::string const &strName, std::string const &strText) const
    {
        std::ofstream(folder / strName) << strText;
    }
    // The reason why the text is refused, from the line on; empty if it is not.
    std::string Refusal(std::string const &strText)
    {
        Fill("s.toml", strText);
        std::string strError;
        settings = ReadHubSettings((folder / "s.toml").string(), &strError);
        EXPECT_EQ(!settings, !strError.empty());
        EXPECT_EQ(strError.find('\n'), std::string::npos);
        std::string const strBefore = (folder / "s.toml").string() + ":";
        EXPECT_TRUE(strError.empty() || strError.starts_with(strBefore)) << strError;
        return strError.empty() ? "" : strError.substr(strBefore.size());
    }

    fs::path const folder = fs::temp_directory_path() / ("hub-settings-" + std::to_string(rand()) +
                                                         std::to_string(time(nullptr)));
    bool const bMade = fs::create_directories(folder);
    std::optional<HubSettings> settings;
};

constexpr char kDevice[] = "[[device]]\nname = \"d\"\naddress = \"h\"\n";
constexpr char kMqtt[] = "[[sink]]\nname = \"m\"\ntype = \"mqtt\"\nhost = \"b\"\n";

} // namespace

TEST_F(HubSettingsTest, WhatIsReadIsWhatWasMeant)
{
    Fill("secret", "");
    setenv("CREDENTIALS_DIRECTORY", (folder / "credentials").c_str(), 1);
    fs::create_directories(folder / "credentials");
    Fill("credentials/password", "from the manager");
    EXPECT_EQ(
        Refusal("site = \"s-1\"\nhub = \"h\"\n[journal]\nfile = \"j/x.db\"\nkeep = \"2d\"\n"
                "keep_megabytes = 3\n[metrics]\nport = 0\n"
                "[[device]]\nname = \"d\"\naddress = \"10.1.2.3\"\nport = 7\nhear = [\"select\"]\n"
                "entries = [\"A\", \"B\"]\n[[device]]\nname = \"l\"\nlocal = true\n" +
                std::string(kMqtt) +
                "tls = true\nuser = \"u\"\npassword_file = \"password\"\ngive_up = \"90s\"\n"
                "[[rule]]\ntype = \"link.*\"\ndevice = [\"d\", \"x\"]\nsink = \"m\"\n"),
        "");
    unsetenv("CREDENTIALS_DIRECTORY");
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->journal.strFile, (folder / "j/x.db").string());
    EXPECT_EQ(settings->journal.keep, std::chrono::hours(48));
    EXPECT_EQ(settings->journal.cbKeep, 3u << 20);
    EXPECT_EQ(settings->devices.at(0).dwPort, 7u);
    EXPECT_EQ(settings->devices.at(0).dwFlags, eNF_SELECT);
    EXPECT_EQ(settings->devices.at(1).dwFlags,
              eNF_SELECT | eNF_ADF | eNF_SCANNER_BUTTON | eNF_FAX_UPLOAD);
    EXPECT_EQ(settings->sinks.at(0).giveUp, std::chrono::seconds(90));
    auto const &mqtt = std::get<HubMqttSettings>(settings->sinks[0].kind);
    EXPECT_EQ(mqtt.strPassword, "from the manager");
    EXPECT_EQ(mqtt.wPort, 8883);
    EXPECT_EQ(mqtt.strSite, "s-1");
    struct {
        char const *pszDevice, *pszType;
        bool bFits;
    } const rows[] = {{"d", "link.lost", true},
                      {"x", "link.", true},
                      {"y", "link.lost", false},
                      {"d", "linked", false},
                      {"d", "panel.picked", false}};
    for (auto const &row : rows) {
        EXPECT_EQ(IsForSink(settings->rules, "m", row.pszDevice, row.pszType, ""), row.bFits)
            << row.pszDevice << row.pszType;
    }
}

// Each field once with a type that is not its own, and what else cannot be meant: the line, and what is said.
TEST_F(HubSettingsTest, WhatCannotBeMeantIsRefusedWithItsLine)
{
    std::string const strDevice = kDevice;
    std::string const strExec =
        strDevice + "[[sink]]\nname = \"e\"\ntype = \"exec\"\ncommand = [\"c\"]\n";
    std::string const strWeb =
        strDevice + "[[sink]]\nname = \"w\"\ntype = \"webhook\"\nurl = \"https://h\"\n";
    std::string const strMqtt = strDevice + kMqtt;
    struct {
        std::string strText;
        char const *pszRefusal; // what it begins with, or has in it behind "…"
    } const rows[] = {
        {"site = 1\n" + strDevice, "1: \"site\" in the settings has to be a text"},
        {"site = \"a/b\"\n" + strDevice, "1: \"a/b\" is no name"},
        {"hub = true\n" + strDevice, "1: \"hub\""},
        {"journal = 1\n" + strDevice, "1: \"journal\" in the settings has to be a table"},
        {strDevice + "[journal]\nfile = 1\n", "5: \"file\""},
        {strDevice + "[journal]\nkeep = 3\n", "5: \"keep\""},
        {strDevice + "[journal]\nkeep = \"3 days\"\n", "5: \"keep\" has to be a time"},
        {strDevice + "[journal]\nkeep_megabytes = \"1\"\n", "5: \"keep_megabytes\""},
        {strDevice + "[journal]\nwaiting = 1\n", "5: \"waiting\" has to be from 100"},
        {strDevice + "[metrics]\nport = \"1\"\n", "5: \"port\""},
        {strDevice + "[metrics]\naddress = 1\nport = 1\n", "5: \"address\""},
        {strDevice + "[web]\nport = 70000\n", "5: \"port\" has to be from 0 to 65535"},
        {"device = 1\n", "1: \"device\" in the settings has to be a list"},
        {"[[device]]\naddress = \"h\"\n", "1: \"name\" is missing"},
        {"[[device]]\nname = 1\naddress = \"h\"\n", "2: \"name\""},
        {"[[device]]\nname = \"d\"\naddress = 1\n", "3: \"address\""},
        {strDevice + "port = 0\n", "4: \"port\""},
        {strDevice + "local = \"yes\"\n", "4: \"local\" in [[device]] has to be true or false"},
        {strDevice + "entries = [1]\n", "4: \"entries\""},
        {strDevice + "entries = [\"" + std::string(300, 'x') + "\"]\n",
         "4: an entry has 300 bytes"},
        {strDevice + "hear = 1\n", "4: \"hear\""},
        {strDevice + "hear = \"smell\"\n", "4: \"hear\" has select"},
        {strDevice + "hear = [\"adf\"]\n", "4: \"adf\" is not heard over a network"},
        {strDevice + "adress = \"x\"\n", "4: there is no \"adress\" in [[device]]"},
        {strDevice + kDevice, "5: there are two devices"},
        {"site = \"s\"\n", "1: there is no [[device]]"},
        {strDevice + "[[sink]]\nname = \"e\"\n", "4: \"type\" is missing"},
        {strDevice + "[[sink]]\nname = \"e\"\ntype = \"fax\"\n", "6: a sink's \"type\""},
        {strDevice + "[[sink]]\nname = \"p\"\ntype = \"print\"\njson = 1\n", "7: \"json\""},
        {strExec + "limit = 1\n", "8: \"limit\""},
        {strExec + "give_up = \"0s\"\n", "8: \"give_up\""},
        {strExec + "first_pause = true\n", "8: \"first_pause\""},
        {strExec + "longest_pause = []\n", "8: \"longest_pause\""},
        {strDevice + "[[sink]]\nname = \"e\"\ntype = \"exec\"\ncommand = 1\n", "7: \"command\""},
        {strWeb + "header_file = \"none\"\n", "8: cannot read"},
        {strWeb + "header_file = \"password\"\n", "8: a line of the \"header_file\""},
        {strWeb + "ca_file = 1\n", "8: \"ca_file\""},
        {strDevice + "[[sink]]\nname = \"w\"\ntype = \"webhook\"\nurl = \"h\"\n", "7: a \"url\""},
        {strMqtt + "port = \"1\"\n", "8: \"port\""},
        {strMqtt + "tls = 1\n", "8: \"tls\""},
        {strMqtt + "ca_file = \"password\"\n", "4: certificates need"},
        {strMqtt + "tls = true\ncert_file = \"password\"\n", "4: \"cert_file\" and \"key_file\""},
        {strMqtt + "user = 1\n", "8: \"user\""},
        {strMqtt + "password_file = \"password\"\n", "8: a \"password_file\" needs"},
        {strMqtt + "base = \"a/#\"\n", "8: \"base\" is no topic"},
        {strMqtt + "home_assistant = 1\n", "8: \"home_assistant\""},
        {strMqtt + "standby = \"x\"\n", "8: \"standby\""},
        {strDevice + "[[sink]]\nname = \"d\"\ntype = \"desktop\"\nbus = 1\n", "7: \"bus\""},
        {strExec + "[[rule]]\nsink = \"other\"\n", "9: there is no sink of the name \"other\""},
        {strExec + "[[rule]]\nsink = \"e\"\ntype = 1\n", "10: \"type\""},
        {strExec + "[[rule]]\ntext = \"x\"\n", "8: \"sink\" is missing in [[rule]]"},
        {strDevice + "[[device\n", "4: "},
    };
    for (auto const &row : rows) {
        std::string const strRefusal = Refusal(row.strText);
        EXPECT_TRUE(strRefusal.starts_with(row.pszRefusal)) << row.strText << "\n" << strRefusal;
    }
}
