#include "platform/runtime.h"
#include "tests/agent/agent_fixture.h"

namespace {

class SubscriptionTest : public AgentTest {
protected:
    SubscriptionTest()
    {
        crt::srand(1);
        m_strFirst = std::to_string(crt::rand());
        crt::srand(1);
    }
    // One operation: its result, the calls that it made and the counts that it left.
    void Expect(DWORD dwResult, DWORD dwWanted, Lines const &calls, Counts const &counts)
    {
        EXPECT_EQ(dwResult, dwWanted);
        EXPECT_EQ(m_script.Take(), calls);
        EXPECT_EQ(m_probe.Traps(), counts);
        crt::srand(1);
    }
    DWORD Add(DWORD dwFlags, char const *psz = nullptr) { return m_agent.Add(&m_dw, dwFlags, psz); }
    DWORD Delete(DWORD dwFlags, char const *psz = nullptr)
    {
        return m_agent.Delete(m_dw, dwFlags, psz);
    }
    std::string
        m_strFirst; // the number that every entry gets, as Expect starts the generator again
    DWORD m_dw = 99;
};

TEST_F(SubscriptionTest, TheFirstRegistersAndTheLastEndsTheRegistration)
{
    Connect(0);
    Expect(Delete(0), 87, {}, {0, 0, 0, 0});
    m_script.Fail("Trap", 31);
    Expect(Add(eNF_ADF | eNF_FAX_UPLOAD), 31, {"Trap 1.2.2.2.1/8 3"}, {0, 0, 0, 0});
    Expect(Add(eNF_ADF), 0, {"Trap 1.2.2.2.1/8 3"}, {0, 1, 0, 0});
    Expect(Add(eNF_ADF), 0, {}, {0, 2, 0, 0});
    Expect(Delete(eNF_ADF), 0, {}, {0, 1, 0, 0});
    m_script.Fail("UnTrap", 5);
    Expect(Delete(eNF_ADF), 5, {"UnTrap 1.2.2.2.1"}, {0, 1, 0, 0});
    Expect(Delete(eNF_ADF), 0, {"UnTrap 1.2.2.2.1"}, {0, 0, 0, 0});
    m_script.Fail("Set", 5); // the button could not be reset: subscribed all the same
    Lines const button{"Trap 1.2.2.2.7/1 4", "Set 1.2.2.2.7/1 01000000"};
    Expect(Add(eNF_SCANNER_BUTTON), 0, button, {0, 0, 1, 0});
    Expect(Add(eNF_SCANNER_BUTTON | eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 2, 1});
    Expect(Delete(eNF_ADF | eNF_SCANNER_BUTTON), 51, {}, {0, 0, 2, 1});
    Expect(m_probe.UISelectOption(), 0, {"Get 1.2.2.1.38/4 "}, {0, 0, 2, 1});
    Expect(Add(eNF_FAX_UPLOAD), 0, {}, {0, 0, 2, 2});
    Expect(Delete(eNF_SCANNER_BUTTON), 0, {}, {0, 0, 1, 2});
    Expect(Delete(eNF_SCANNER_BUTTON), 0, {"UnTrap 1.2.2.2.7"}, {0, 0, 0, 2});
    Expect(Delete(eNF_FAX_UPLOAD), 0, {}, {0, 0, 0, 1});
    m_agent.Shutdown();
    Connect(0);
    Expect(Add(eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 0, 1});
}

TEST_F(SubscriptionTest, PanelEntriesShareOneTrapOnALocalLink)
{
    Connect(0);
    std::string const strTrap = "Trap 1.2.2.1.38/4 1";
    std::string const strSent = ";NETADDR=LINK0;SWINST=" + m_strFirst + ";";
    std::string const strAdd = "Set 1.2.2.1.37/4 Paper Archive" + strSent;
    std::string const strDelete = "Set 1.2.2.1.42/4 a;" + strSent;
    Expect(Add(eNF_SELECT, "Paper Archive;"), 0, {strAdd, strTrap}, {1, 0, 0, 0});
    EXPECT_EQ(std::to_string(m_dw), m_strFirst);
    EXPECT_STREQ(m_probe.strNetAddr, "NETADDR=LINK0;");
    Expect(Add(eNF_SELECT, "Paper Archive"), 0, {strAdd}, {2, 0, 0, 0});
    m_script.Fail("Set", 170);
    Expect(Delete(eNF_SELECT, "a;;"), 170, {strDelete}, {2, 0, 0, 0});
    Expect(Delete(eNF_SELECT, "a;;"), 0, {strDelete}, {1, 0, 0, 0});
    m_script.Fail("UnTrap", 31);
    Expect(Delete(eNF_SELECT, "a;;"), 31, {strDelete, "UnTrap 1.2.2.1.38"}, {0, 0, 0, 0});
    Expect(Delete(eNF_SELECT, nullptr), 87, {}, {0, 0, 0, 0});
    Expect(m_agent.Add(nullptr, eNF_SELECT, "a"), 87, {}, {0, 0, 0, 0});
    m_script.Fail("Trap", 1816);
    Expect(Add(eNF_SELECT, "Paper Archive"), 1816, {strAdd, strTrap}, {0, 0, 0, 0});
    EXPECT_EQ(std::to_string(m_dw), m_strFirst);
}

TEST_F(SubscriptionTest, OverANetworkTheEntryNamesTheSocketAndNothingIsCounted)
{
    Connect(1);
    EXPECT_NE(m_probe.wPort, 0);
    m_probe.strHostAddress = "10.1.2.3";
    m_probe.wPort = 65535;
    std::string const strSent = ";NETADDR=10.1.2.3:65535;SWINST=" + m_strFirst + ";";
    std::string const strAdd = "Set 1.2.2.1.37/4 a" + strSent;
    std::string const strDelete = "Set 1.2.2.1.42/4 a" + strSent;
    Expect(Add(eNF_SELECT | eNF_ADF | eNF_FAX_UPLOAD, "a"), 50, {strAdd}, {0, 0, 0, 0});
    Expect(m_agent.Modify(&m_dw, "a", "a;"), 0, {strDelete, strAdd}, {0, 0, 0, 0});
    Expect(m_agent.Modify(&m_dw, nullptr, "b"), 87, {}, {0, 0, 0, 0});
    m_script.Fail("Set 1.2.2.1.42", 1168);
    Expect(m_agent.Modify(&m_dw, "a", "b"), 1168, {strDelete}, {0, 0, 0, 0});
    Expect(Add(eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 0, 1});
    Expect(Delete(eNF_SCANNER_BUTTON), 50, {}, {0, 0, 0, 1});
}

} // namespace
