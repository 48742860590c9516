#include <vesk/VeskConfig.h>

#include <gtest/gtest.h>

#include <vector>

namespace vesk {
namespace {

// By id; those that are empty stand for ids that are not in use.
std::vector<std::string> const TOPICS{"", "virtualcomm", "test", ""};
std::vector<std::vector<std::string>> const BUSINESSES{
        {"", ""},
        {"", "vm", "ril0", "ril1", "ril2", "imsril0", "imsril1", "datashred", "phone", "quillex",
         "cell0", "cell1", "cellims0", "cellims1", ""},
        {"", "test", ""},
        {"", ""}};

TEST(ConfigTest, CatalogueIsFoundByIdAndByName) {
    VeskConfig const config;
    for (size_t index = 0; index < TOPICS.size(); ++index) {
        auto const topic = static_cast<uint16_t>(index);
        EXPECT_EQ(config.isTopicSupport(topic), !TOPICS[topic].empty()) << topic;
        EXPECT_EQ(config.getTopicIdById(topic), TOPICS[topic]);
        uint16_t id = 0;
        for (std::string const& name : BUSINESSES[topic]) {
            EXPECT_EQ(config.isBussinessSupport(topic, id), !name.empty()) << topic << ' ' << id;
            EXPECT_EQ(config.getBussinessIdById(topic, id), name);
            EXPECT_EQ(config.getBussinessIdByName(topic, name), name.empty() ? -1 : id);
            ++id;
        }
    }
    EXPECT_EQ(config.getTopicIdByName("virtualcomm"), 1);
    EXPECT_EQ(config.getTopicIdByName("test"), 2);
    for (char const* const name : {"", "tes", "test ", "Test", "cell0"})
        EXPECT_EQ(config.getTopicIdByName(name), -1) << name;
    EXPECT_EQ(config.getBussinessIdByName(1, "test"), -1);

    // Only the topic id of a business is cut to 16 bits.
    EXPECT_EQ(config.getBussinessIdByName(65537, "cell0"), 10);
    EXPECT_EQ(config.getBussinessIdById(65537, 10), "cell0");
    EXPECT_EQ(config.getBussinessIdById(1, 65546), "");
    EXPECT_EQ(config.getTopicIdById(65538), "");
}

}  // namespace
}  // namespace vesk
