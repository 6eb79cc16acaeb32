#include "tests/agent/agent_fixture.h"

#include "platform/runtime.h"

namespace {

class SubscriptionTest : public AgentTest {
protected:
    // One operation: its result, the calls that it made and the counts that it left.
    void Expect(DWORD dwResult, DWORD dwWanted, Lines const &calls, Counts const &counts)
    {
        EXPECT_EQ(dwResult, dwWanted);
        EXPECT_EQ(m_script.Take(), calls);
        EXPECT_EQ(m_probe.Traps(), counts);
    }
    DWORD Add(DWORD dwFlags, char const *pszOption = nullptr)
    {
        return m_agent.Add(&m_dwInstance, dwFlags, pszOption);
    }
    DWORD Delete(DWORD dwFlags, char const *pszOption = nullptr)
    {
        return m_agent.Delete(m_dwInstance, dwFlags, pszOption);
    }
    // Makes the next number from the generator known, and gives it as text.
    std::string NextNumber()
    {
        crt::srand(1);
        std::string const strNumber = std::to_string(crt::rand());
        crt::srand(1);
        return strNumber;
    }

    DWORD m_dwInstance = 99;
    std::string const m_strButtonOff = "Set 1.2.2.2.7/1 01000000";
};

TEST_F(SubscriptionTest, TheFirstRegistersAndTheLastEndsTheRegistration)
{
    Connect(0);
    Expect(Add(0), 87, {}, {0, 0, 0, 0});
    Expect(Add(0xFFFFFFF0), 87, {}, {0, 0, 0, 0});
    Expect(Delete(0), 87, {}, {0, 0, 0, 0});
    Expect(Add(eNF_SELECT | eNF_ADF), 87, {}, {0, 0, 0, 0});
    m_script.Fail("Trap", 31);
    Expect(Add(eNF_ADF | eNF_FAX_UPLOAD), 31, {"Trap 1.2.2.2.1/8 3"}, {0, 0, 0, 0});
    Expect(Add(eNF_ADF), 0, {"Trap 1.2.2.2.1/8 3"}, {0, 1, 0, 0});
    Expect(Add(eNF_ADF), 0, {}, {0, 2, 0, 0});
    Expect(Delete(eNF_ADF), 0, {}, {0, 1, 0, 0});
    m_script.Fail("UnTrap", 5);
    Expect(Delete(eNF_ADF), 5, {"UnTrap 1.2.2.2.1"}, {0, 1, 0, 0});
    Expect(Delete(eNF_ADF), 0, {"UnTrap 1.2.2.2.1"}, {0, 0, 0, 0});
    m_script.Fail("Set", 5); // the button's state could not be reset: subscribed all the same
    Expect(Add(eNF_SCANNER_BUTTON), 0, {"Trap 1.2.2.2.7/1 4", m_strButtonOff}, {0, 0, 1, 0});
    Expect(Add(eNF_SCANNER_BUTTON | eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 2, 1});
    Expect(Delete(eNF_ADF | eNF_SCANNER_BUTTON), 51, {}, {0, 0, 2, 1});
    m_agent.Shutdown();
    Connect(0);
    Expect(Add(eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 0, 1});
    Expect(m_probe.UISelectOption(), 0, {"Get 1.2.2.1.38/4 "}, {0, 0, 0, 1});
}

TEST_F(SubscriptionTest, PanelEntriesShareOneTrapOnALocalLink)
{
    Connect(0);
    std::string const strNumber = NextNumber();
    std::string const strClauses = "NETADDR=LINK0;SWINST=" + strNumber + ";";
    Expect(Add(eNF_SELECT, "Paper Archive;"), 0,
           {"Set 1.2.2.1.37/4 Paper Archive;" + strClauses, "Trap 1.2.2.1.38/4 1"}, {1, 0, 0, 0});
    EXPECT_EQ(std::to_string(m_dwInstance), strNumber);
    EXPECT_STREQ(m_probe.strNetAddr, "NETADDR=LINK0;");
    NextNumber();
    Expect(Add(eNF_SELECT, "a;;"), 0, {"Set 1.2.2.1.37/4 a;;" + strClauses}, {2, 0, 0, 0});
    m_script.Fail("Set", 170);
    Expect(Delete(eNF_SELECT, "a;;"), 170, {"Set 1.2.2.1.42/4 a;;" + strClauses}, {2, 0, 0, 0});
    Expect(Delete(eNF_SELECT, "a;;"), 0, {"Set 1.2.2.1.42/4 a;;" + strClauses}, {1, 0, 0, 0});
    m_script.Fail("UnTrap", 31);
    Expect(Delete(eNF_SELECT, "b"), 31, {"Set 1.2.2.1.42/4 b;" + strClauses, "UnTrap 1.2.2.1.38"},
           {0, 0, 0, 0});
    m_dwInstance = 0x80000000;
    Expect(Delete(eNF_SELECT, "b"), 0, {"Set 1.2.2.1.42/4 b;NETADDR=LINK0;SWINST=-2147483648;"},
           {0, 0, 0, 0});
    Expect(Add(eNF_SELECT, ""), 87, {}, {0, 0, 0, 0});
    Expect(Delete(eNF_SELECT, nullptr), 87, {}, {0, 0, 0, 0});
    Expect(m_agent.Add(nullptr, eNF_SELECT, "a"), 87, {}, {0, 0, 0, 0});
    EXPECT_EQ(m_dwInstance, 0x80000000);
    m_script.Fail("Trap", 1816);
    NextNumber();
    Expect(Add(eNF_SELECT, "c"), 1816, {"Set 1.2.2.1.37/4 c;" + strClauses, "Trap 1.2.2.1.38/4 1"},
           {0, 0, 0, 0});
    EXPECT_EQ(std::to_string(m_dwInstance), strNumber);
}

TEST_F(SubscriptionTest, OverANetworkTheEntryNamesTheSocketAndNothingIsCounted)
{
    Connect(1);
    m_probe.strHostAddress = "10.1.2.3";
    m_probe.wPort = 65535;
    std::string const strClauses = "NETADDR=10.1.2.3:65535;SWINST=" + NextNumber() + ";";
    Expect(Add(eNF_SELECT | eNF_ADF | eNF_FAX_UPLOAD, "Paper Archive"), 50,
           {"Set 1.2.2.1.37/4 Paper Archive;" + strClauses}, {0, 0, 0, 0});
    NextNumber();
    Expect(m_agent.Modify(&m_dwInstance, "Paper Archive", "b"), 0,
           {"Set 1.2.2.1.42/4 Paper Archive;" + strClauses, "Set 1.2.2.1.37/4 b;" + strClauses},
           {0, 0, 0, 0});
    Expect(m_agent.Modify(&m_dwInstance, nullptr, "b"), 87, {}, {0, 0, 0, 0});
    m_script.Fail("Set 1.2.2.1.42", 1168);
    Expect(m_agent.Modify(&m_dwInstance, "b", "c"), 1168, {"Set 1.2.2.1.42/4 b;" + strClauses},
           {0, 0, 0, 0});
    Expect(Add(eNF_FAX_UPLOAD), 0, {"Trap 1.3.7.2.1/1 7"}, {0, 0, 0, 1});
    Expect(Delete(eNF_SCANNER_BUTTON), 50, {}, {0, 0, 0, 1});
    m_probe.strHostAddress.Empty();
    m_probe.wPort = 0;
    m_dwInstance = 0;
    Expect(Delete(eNF_SELECT, "d"), 0, {"Set 1.2.2.1.42/4 d;NETADDR=:0;SWINST=0;"}, {0, 0, 0, 1});
}

} // namespace
