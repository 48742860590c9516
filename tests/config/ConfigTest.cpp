#include <vesk/VeskConfig.h>

#include <gtest/gtest.h>

#include <vector>

namespace vesk {
namespace {

// By id, from 0: topics, each with its name and then its businesses. An id without a name is free.
std::vector<std::vector<std::string>> const CATALOGUE{
        {"", ""},
        {"virtualcomm", "", "vm", "ril0", "ril1", "ril2", "imsril0", "imsril1", "datashred",
         "phone", "quillex", "cell0", "cell1", "cellims0", "cellims1", ""},
        {"test", "", "test", ""},
        {"", "", ""}};

TEST(ConfigTest, CatalogueIsFoundByIdAndByName) {
    VeskConfig const config;
    for (uint16_t topic = 0; topic < CATALOGUE.size(); ++topic) {
        auto const& names = CATALOGUE[topic];
        EXPECT_EQ(config.isTopicSupport(topic), !names[0].empty()) << topic;
        EXPECT_EQ(config.getTopicIdById(topic), names[0]);
        EXPECT_EQ(config.getTopicIdByName(names[0]), names[0].empty() ? -1 : topic);
        for (uint16_t id = 0; id + 1U < names.size(); ++id) {
            std::string const& name = names[id + 1];
            EXPECT_EQ(config.isBussinessSupport(topic, id), !name.empty()) << topic << ' ' << id;
            EXPECT_EQ(config.getBussinessIdById(topic, id), name);
            EXPECT_EQ(config.getBussinessIdByName(topic, name), name.empty() ? -1 : id);
            // The topic of a business is cut to 16 bits, and nothing else is.
            EXPECT_EQ(config.getBussinessIdById(topic + 65536, id), name);
            EXPECT_EQ(config.getBussinessIdByName(topic + 65536, name), name.empty() ? -1 : id);
            EXPECT_EQ(config.getBussinessIdById(topic, id + 65536), "");
        }
        EXPECT_EQ(config.getTopicIdById(topic + 65536), "");
    }
    for (char const* const name : {"tes", "test ", "Test", "cell0"})
        EXPECT_EQ(config.getTopicIdByName(name), -1) << name;
}

}  // namespace
}  // namespace vesk
