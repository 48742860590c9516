#include <vesk/VeskConfig.h>

#include <aidl/vendor/orvex/hardware/tessaraport/VeskConstants.h>
#include <gtest/gtest.h>

#include <set>

namespace vesk {
namespace {

using Names = aidl::vendor::orvex::hardware::tessaraport::VeskConstants;

void expectBusiness(uint16_t topicId, uint16_t id, std::string const& name) {
    SCOPED_TRACE(name);
    VeskConfig const config;
    EXPECT_TRUE(config.isBussinessSupport(topicId, id));
    EXPECT_EQ(config.getBussinessIdByName(topicId, name), id);
    EXPECT_EQ(config.getBussinessIdById(topicId, id), name);
}

TEST(ConfigTest, EveryBusinessIsFoundByIdAndByName) {
    std::vector<std::string> const names{Names::VIRTUALCOMM_VM,
                                         Names::VIRTUALCOMM_RIL0,
                                         Names::VIRTUALCOMM_RIL1,
                                         Names::VIRTUALCOMM_RIL2,
                                         Names::VIRTUALCOMM_IMSRIL0,
                                         Names::VIRTUALCOMM_IMSRIL1,
                                         Names::VIRTUALCOMM_DATASHRED,
                                         Names::VIRTUALCOMM_PHONE,
                                         Names::VIRTUALCOMM_QUILLEX,
                                         "cell0",
                                         "cell1",
                                         "cellims0",
                                         "cellims1"};
    for (size_t i = 0; i < names.size(); ++i) {
        expectBusiness(1, static_cast<uint16_t>(i + 1), names[i]);
    }
    expectBusiness(2, 1, "test");
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 13U);
}

TEST(ConfigTest, TopicsAreFoundByIdAndByName) {
    VeskConfig const config;
    EXPECT_EQ(config.getTopicIdByName(Names::VIRTUALCOMM_TOPIC), 1);
    EXPECT_EQ(config.getTopicIdById(1), Names::VIRTUALCOMM_TOPIC);
    EXPECT_EQ(config.getTopicIdByName("test"), 2);
    EXPECT_EQ(config.getTopicIdById(2), "test");
    for (uint16_t id = 0; id < 4; ++id)
        EXPECT_EQ(config.isTopicSupport(id), id == 1 || id == 2);
}

TEST(ConfigTest, WhatIsNotInTheCatalogueIsNotFound) {
    VeskConfig const config;
    for (char const* const name : {"", "tes", "test ", "Test", "cell0"}) {
        EXPECT_EQ(config.getTopicIdByName(name), -1) << name;
    }
    EXPECT_EQ(config.getBussinessIdByName(1, "test"), -1);
    EXPECT_EQ(config.getBussinessIdByName(3, "cell0"), -1);
    for (auto const& [topic, business] :
         std::map<uint16_t, uint16_t>{{0, 1}, {1, 14}, {2, 0}, {3, 1}}) {
        EXPECT_FALSE(config.isBussinessSupport(topic, business)) << topic;
        EXPECT_EQ(config.getBussinessIdById(topic, business), "") << topic;
    }
}

TEST(ConfigTest, OnlyTheTopicIdOfABusinessIsCutTo16Bits) {
    VeskConfig const config;
    EXPECT_EQ(config.getBussinessIdByName(65537, "cell0"), 10);
    EXPECT_EQ(config.getBussinessIdById(65537, 10), "cell0");
    EXPECT_EQ(config.getBussinessIdById(1, 65546), "");
    EXPECT_EQ(config.getTopicIdById(65538), "");
}

}  // namespace
}  // namespace vesk
