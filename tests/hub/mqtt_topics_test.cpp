#include "hub/mqtt_topics.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>
#include <string>

TEST(MqttTopics, NamesStayApartAndHaveNoSignsOfTopics)
{
    HubMqttSettings settings;
    settings.strSite = "office";
    CMqttTopics const topics(settings);
    std::set<std::string> events;
    std::set<std::string> homes;
    std::string const kNames[] = {"a",
                                  "a/b",
                                  "a%2Fb",
                                  "a+",
                                  "a#",
                                  "a b",
                                  "a_b",
                                  "a-b",
                                  "%",
                                  "",
                                  "$a",
                                  "ä",
                                  std::string("a\0b", 3)};
    for (std::string const &strName : kNames) {
        std::string const strTopic = topics.Of(strName, "panel.picked");
        EXPECT_EQ(std::count(strTopic.begin(), strTopic.end(), '/'), 3) << strTopic;
        EXPECT_EQ(strTopic.find_first_of(std::string("+#\0", 3)), std::string::npos) << strTopic;
        events.insert(strTopic);
        std::string const strHome = topics.HomeTopic(strName);
        EXPECT_EQ(strHome.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEF0123456789-_/"),
                  std::string::npos)
            << strHome;
        homes.insert(strHome);
    }
    EXPECT_EQ(events.size(), std::size(kNames));
    EXPECT_EQ(homes.size(), std::size(kNames));
}

TEST(MqttTopics, HomeAssistantFindsWhatIsPublished)
{
    HubMqttSettings settings;
    settings.strSite = "office";
    CMqttTopics const topics(settings);
    HubDeviceState state;
    state.strDevice = "1st/floor";
    auto const home = nlohmann::json::parse(topics.HomePayload(state));
    std::set<std::string> read;
    std::set<std::string> ids;
    for (auto const &component : home["components"]) {
        read.insert(component["state_topic"]);
        ids.insert(component["unique_id"]);
    }
    std::set<std::string> const published{
        topics.Of("1st/floor", "panel.picked"), topics.Of("1st/floor", "button.pressed"),
        topics.Of("1st/floor", "feeder.changed"), topics.Of("1st/floor", "fax.waiting"),
        topics.Of("1st/floor", "availability")};
    EXPECT_EQ(read, published);
    EXPECT_EQ(ids.size(), published.size());
}
