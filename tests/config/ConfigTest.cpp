#include <vesk/VeskConfig.h>

#include <gtest/gtest.h>

#include <vector>

namespace vesk {

// By id, from 0: each topic's name and then its businesses. An id without a name is not in use.
std::vector<std::vector<std::string>> const CATALOGUE{
        {"", ""},
        {"virtualcomm", "", "vm", "ril0", "ril1", "ril2", "imsril0", "imsril1", "datashred",
         "phone", "quillex", "cell0", "cell1", "cellims0", "cellims1", ""},
        {"test", "", "test", ""},
        {"", "", ""}};

TEST(ConfigTest, CatalogueIsFoundByIdAndByName) {
    VeskConfig const config;
    auto const idOf = [](std::string const& name, int id) { return name.empty() ? -1 : id; };
    uint16_t topic = 0;
    for (auto const& names : CATALOGUE) {
        EXPECT_EQ(config.isTopicSupport(topic), !names[0].empty()) << topic;
        EXPECT_EQ(config.getTopicIdByName(names[0]), idOf(names[0], topic));
        EXPECT_EQ(config.getTopicIdById(topic) + config.getTopicIdById(topic + 65536), names[0]);
        for (uint16_t id = 0; id + 1U < names.size(); ++id) {
            std::string const& name = names[id + 1];
            EXPECT_EQ(config.isBussinessSupport(topic, id), !name.empty()) << topic << ' ' << id;
            for (int const cut : {topic + 0, topic + 65536}) {  // of a business's topic alone
                EXPECT_EQ(config.getBussinessIdById(cut, id), name);
                EXPECT_EQ(config.getBussinessIdById(cut, id + 65536), "");
                EXPECT_EQ(config.getBussinessIdByName(cut, name), idOf(name, id));
            }
        }
        ++topic;
    }
    EXPECT_EQ(config.getTopicIdByName("tes") + config.getTopicIdByName("test "), -2);
}

}  // namespace vesk
