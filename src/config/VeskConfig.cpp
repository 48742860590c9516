#include <vesk/VeskConfig.h>

#include <aidl/vendor/orvex/hardware/tessaraport/VeskConstants.h>

namespace vesk {

using aidl::vendor::orvex::hardware::tessaraport::VeskConstants;

VeskConfig::VeskConfig() {
    mTopicNames = {{1, VeskConstants::VIRTUALCOMM_TOPIC}, {2, "test"}};
    mBusinesses[1] = {
            {1, VeskConstants::VIRTUALCOMM_VM},
            {2, VeskConstants::VIRTUALCOMM_RIL0},
            {3, VeskConstants::VIRTUALCOMM_RIL1},
            {4, VeskConstants::VIRTUALCOMM_RIL2},
            {5, VeskConstants::VIRTUALCOMM_IMSRIL0},
            {6, VeskConstants::VIRTUALCOMM_IMSRIL1},
            {7, VeskConstants::VIRTUALCOMM_DATASHRED},
            {8, VeskConstants::VIRTUALCOMM_PHONE},
            {9, VeskConstants::VIRTUALCOMM_QUILLEX},
            {10, "cell0"},
            {11, "cell1"},
            {12, "cellims0"},
            {13, "cellims1"},
    };
    mBusinesses[2] = {{1, "test"}};
}

bool VeskConfig::isTopicSupport(uint16_t topicId) const {
    return mTopicNames.count(topicId) != 0;
}

bool VeskConfig::isBussinessSupport(uint16_t topicId, uint16_t businessId) const {
    auto const topic = mBusinesses.find(topicId);
    return topic != mBusinesses.end() && topic->second.count({businessId, {}}) != 0;
}

int VeskConfig::getTopicIdByName(std::string const& name) const {
    for (auto const& [id, topicName] : mTopicNames) {
        if (topicName == name) return id;
    }
    return -1;
}

int VeskConfig::getBussinessIdByName(int topicId, std::string const& name) const {
    auto const topic = mBusinesses.find(static_cast<uint16_t>(topicId));
    if (topic == mBusinesses.end()) {
        return -1;
    }
    for (BuisnessDesc const& business : topic->second) {
        if (business.name == name) return business.id;
    }
    return -1;
}

std::string VeskConfig::getTopicIdById(int topicId) const {
    for (auto const& [id, name] : mTopicNames) {
        if (id == topicId) return name;
    }
    return {};
}

std::string VeskConfig::getBussinessIdById(int topicId, int const& businessId) const {
    auto const topic = mBusinesses.find(static_cast<uint16_t>(topicId));
    if (topic == mBusinesses.end()) {
        return {};
    }
    for (BuisnessDesc const& business : topic->second) {
        if (business.id == businessId) return business.name;
    }
    return {};
}

}  // namespace vesk
