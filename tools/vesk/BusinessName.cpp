#include "BusinessName.h"

#include "Errors.h"

namespace vesk::tool {

namespace {
// On the wire a topic and a business are one byte each, so no catalogue can hold more.
constexpr int MAX_ID = 255;
}  // namespace

BusinessName BusinessName::parse(std::string const& text) {
    size_t const slash = text.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == text.size()) {
        throw UsageError("'" + text + "' is no business; write TOPIC/BUSINESS, like test/test");
    }
    BusinessName name{text.substr(0, slash), text.substr(slash + 1)};
    if (name.topic.size() > 255 || name.business.size() > 255) {
        throw UsageError("the names in '" + text.substr(0, 40) +
                         "...' are too long; a topic and a business have 255 bytes at most");
    }
    return name;
}

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

}  // namespace vesk::tool
