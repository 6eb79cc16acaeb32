#include "device/device_model.h"
#include "devlink/link_stream.h"

#include <gtest/gtest.h>

namespace {

LinkBytes Text(std::string const &str)
{
    return LinkBytes(str.begin(), str.end());
}

class DeviceModel : public testing::Test {
protected:
    DWORD Add(ClientId client, std::string const &str, bool fNetwork = false)
    {
        return model.Set(client, fNetwork, eDO_UI_ADD_OPTION, eLD_TEXT, Text(str), &changes);
    }
    DWORD Delete(ClientId client, std::string const &str)
    {
        return model.Set(client, false, eDO_UI_DELETE_OPTION, eLD_TEXT, Text(str), &changes);
    }
    DWORD Token(ClientId client, BYTE b)
    {
        return model.Set(client, false, eDO_SCAN_TOKEN, eLD_BINARY, LinkBytes(16, b), &changes);
    }
    std::string Panel() const
    {
        std::string str;
        for (PanelEntry const &entry : model.Panel()) {
            str += entry.strText + "/" + std::to_string(entry.owner) + " ";
        }
        return str;
    }

    CDeviceModel model;
    ObjectChanges changes;
};

} // namespace

TEST_F(DeviceModel, PanelEntriesBelongToTheirLink)
{
    EXPECT_EQ(Add(1, "a;SWINST=1;"), eLR_OK);
    EXPECT_EQ(Add(2, "a;SWINST=1;"), eLR_OK);
    EXPECT_EQ(Add(1, "b"), eLR_OK);
    EXPECT_EQ(Add(1, "b"), eLR_OK) << "there already";
    EXPECT_EQ(Panel(), "a;SWINST=1;/1 a;SWINST=1;/2 b/1 ");

    EXPECT_EQ(Delete(1, "a;SWINST=1"), eLR_NO_SUCH_OBJECT) << "to the letter";
    EXPECT_EQ(Delete(2, "b"), eLR_NO_SUCH_OBJECT) << "another's";
    EXPECT_EQ(Delete(1, "a;SWINST=1;"), eLR_OK);
    EXPECT_EQ(Panel(), "a;SWINST=1;/2 b/1 ");
    EXPECT_EQ(model.ClientGone(1, &changes).size(), 1u);
    EXPECT_EQ(Panel(), "a;SWINST=1;/2 ");
}

TEST_F(DeviceModel, APressIsClaimedOnce)
{
    EXPECT_EQ(Token(1, 7), eLR_BUSY) << "no press";
    model.PressButton();
    EXPECT_EQ(Token(1, 7), eLR_OK);
    EXPECT_EQ(Token(2, 7), eLR_BUSY) << "held";
    EXPECT_EQ(Token(2, 0), eLR_BUSY) << "another's token";
    EXPECT_EQ(Token(1, 0), eLR_OK);
    EXPECT_EQ(Token(2, 7), eLR_BUSY) << "free again, but the press is used up";

    model.PressButton();
    EXPECT_EQ(Token(2, 7), eLR_OK);
    model.PressButton();
    EXPECT_EQ(Token(1, 7), eLR_BUSY) << "a new press, while the token is held";
    model.ClientGone(2, &changes);
    EXPECT_EQ(model.TokenHolder(), 0u);
    EXPECT_EQ(Token(1, 7), eLR_OK);

    model.RefuseClaims(1);
    EXPECT_EQ(Token(1, 0), eLR_OK) << "freeing is no claim";
    model.PressButton();
    EXPECT_EQ(Token(1, 7), eLR_REFUSED);
    EXPECT_EQ(Token(1, 7), eLR_OK);
}

TEST(HostAndPort, TakesNothingButSingleHosts)
{
    LinkAddress address;
    EXPECT_TRUE(ParseHostAndPort("10.1.2.3:65535", &address));
    EXPECT_EQ(FormatAddress(address), "10.1.2.3:65535");
    for (char const *psz :
         {"", ":1037", "10.1.2.3", "10.1.2.3:0", "10.1.2.3:65536", "10.1.2.3: 1", "10.1.2:1",
          "10.1.2.256:1", "host:1", "0.1.2.3:1", "224.0.0.1:1", "10.1.2.3:4294967297"}) {
        EXPECT_FALSE(ParseHostAndPort(psz, &address)) << psz;
    }
}
