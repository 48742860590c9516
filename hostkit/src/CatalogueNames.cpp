#include <vesk/hostkit/CatalogueNames.h>

#include <cstdint>
#include <utility>

namespace vesk::hostkit {

namespace {
// On the wire a topic and a business are one byte each, so no catalogue can hold more.
constexpr int MAX_ID = UINT8_MAX;
}  // namespace

std::vector<std::string> topicNames(VeskConfig const& catalogue) {
    std::vector<std::string> names;
    for (int id = 1; id <= MAX_ID; ++id) {
        std::string name = catalogue.getTopicIdById(id);
        if (!name.empty()) names.push_back(std::move(name));
    }
    return names;
}

std::vector<std::string> businessNames(VeskConfig const& catalogue, std::string const& topic) {
    std::vector<std::string> names;
    int const topicId = catalogue.getTopicIdByName(topic);
    for (int id = 1; topicId > 0 && id <= MAX_ID; ++id) {
        std::string name = catalogue.getBussinessIdById(topicId, id);
        if (!name.empty()) names.push_back(std::move(name));
    }
    return names;
}

std::string joinNames(std::vector<std::string> const& names) {
    std::string all;
    for (std::string const& name : names) {
        if (!all.empty()) all += ", ";
        all += name;
    }
    return all;
}

}  // namespace vesk::hostkit
