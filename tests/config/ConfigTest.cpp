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
        {"tes", ""}};

TEST(ConfigTest, CatalogueIsFoundByIdAndByName) {
    VeskConfig const config;
    for (uint16_t topic = 0; topic < uint16_t(CATALOGUE.size()); ++topic) {
        auto const& names = CATALOGUE[topic];
        bool const known = topic == 1 || topic == 2;
        EXPECT_EQ(config.isTopicSupport(topic), known) << topic;
        EXPECT_EQ(config.getTopicIdByName(names[0]), known ? topic : -1);
        EXPECT_EQ(config.getTopicIdById(topic) + config.getTopicIdById(topic + 65536),
                  known ? names[0] : "");
        for (uint16_t id = 0; id + 1U < names.size(); ++id) {
            std::string const& name = names[id + 1];
            EXPECT_EQ(config.isBussinessSupport(topic, id), !name.empty()) << topic << ' ' << id;
            int const cut = topic + 65536;  // of a business's topic, and of nothing else
            EXPECT_EQ(config.getBussinessIdById(cut, id), name);
            EXPECT_EQ(config.getBussinessIdById(cut, id + 65536), "");
            EXPECT_EQ(config.getBussinessIdByName(cut, name), name.empty() ? -1 : id);
        }
    }
}

}  // namespace vesk
