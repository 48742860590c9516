#include <vesk/VeskConfig.h>

#include <aidl/vendor/orvex/hardware/tessaraport/VeskConstants.h>
#include <gtest/gtest.h>

#include <set>

namespace vesk {
namespace {

using Names = aidl::vendor::orvex::hardware::tessaraport::VeskConstants;

struct Row {
    int topicId;
    int businessId;
    std::string name;
};

std::vector<Row> const CATALOGUE{
        {1, 1, Names::VIRTUALCOMM_VM},
        {1, 2, Names::VIRTUALCOMM_RIL0},
        {1, 3, Names::VIRTUALCOMM_RIL1},
        {1, 4, Names::VIRTUALCOMM_RIL2},
        {1, 5, Names::VIRTUALCOMM_IMSRIL0},
        {1, 6, Names::VIRTUALCOMM_IMSRIL1},
        {1, 7, Names::VIRTUALCOMM_DATASHRED},
        {1, 8, Names::VIRTUALCOMM_PHONE},
        {1, 9, Names::VIRTUALCOMM_QUILLEX},
        {1, 10, "cell0"},
        {1, 11, "cell1"},
        {1, 12, "cellims0"},
        {1, 13, "cellims1"},
        {2, 1, "test"},
};

TEST(ConfigTest, EveryBusinessIsFoundByIdAndByName) {
    VeskConfig const config;
    std::set<std::string> names;
    for (Row const& row : CATALOGUE) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(config.isBussinessSupport(static_cast<uint16_t>(row.topicId),
                                              static_cast<uint16_t>(row.businessId)));
        EXPECT_EQ(config.getBussinessIdByName(row.topicId, row.name), row.businessId);
        EXPECT_EQ(config.getBussinessIdById(row.topicId, row.businessId), row.name);
        names.insert(row.name);
    }
    EXPECT_EQ(names.size(), CATALOGUE.size());
}

TEST(ConfigTest, TopicsAreFoundByIdAndByName) {
    VeskConfig const config;
    EXPECT_EQ(config.getTopicIdByName(Names::VIRTUALCOMM_TOPIC), 1);
    EXPECT_EQ(config.getTopicIdById(1), Names::VIRTUALCOMM_TOPIC);
    EXPECT_EQ(config.getTopicIdByName("test"), 2);
    EXPECT_EQ(config.getTopicIdById(2), "test");
    EXPECT_TRUE(config.isTopicSupport(1));
    EXPECT_TRUE(config.isTopicSupport(2));
}

TEST(ConfigTest, WhatIsNotInTheCatalogueIsNotFound) {
    VeskConfig const config;
    EXPECT_FALSE(config.isTopicSupport(0));
    EXPECT_FALSE(config.isTopicSupport(3));
    for (char const* const name : {"", "tes", "test ", "Test", "cell0"}) {
        EXPECT_EQ(config.getTopicIdByName(name), -1) << name;
    }
    for (Row const& row : std::vector<Row>{
                 {1, 0, "test"}, {1, 14, ""}, {2, 2, "cell0"}, {3, 1, "cell0"}, {0, 1, "test"}}) {
        SCOPED_TRACE(testing::Message() << row.topicId << '/' << row.businessId);
        EXPECT_FALSE(config.isBussinessSupport(static_cast<uint16_t>(row.topicId),
                                               static_cast<uint16_t>(row.businessId)));
        EXPECT_EQ(config.getBussinessIdById(row.topicId, row.businessId), "");
        EXPECT_EQ(config.getBussinessIdByName(row.topicId, row.name), -1);
    }
}

TEST(ConfigTest, OnlyTheTopicIdOfABusinessIsCutTo16Bits) {
    VeskConfig const config;
    EXPECT_EQ(config.getBussinessIdByName(65537, "cell0"), 10);
    EXPECT_EQ(config.getBussinessIdById(65537, 10), "cell0");
    EXPECT_EQ(config.getBussinessIdById(1, 65546), "");
    EXPECT_EQ(config.getTopicIdById(65538), "");
    EXPECT_EQ(config.getTopicIdById(-65534), "");
}

TEST(ConfigTest, BusinessesWithOneIdAreOne) {
    std::set<VeskConfig::BuisnessDesc> businesses{{1, "first"}};
    EXPECT_FALSE(businesses.insert({1, "second"}).second);
    EXPECT_EQ(businesses.begin()->name, "first");
}

}  // namespace
}  // namespace vesk
