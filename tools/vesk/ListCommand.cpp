#include "ListCommand.h"

#include <cstdio>
#include <string>

#include <vesk/VeskConfig.h>
#include <vesk/hostkit/CatalogueNames.h>

#include "Errors.h"

namespace vesk::tool {

namespace {

using hostkit::businessNames;
using hostkit::topicNames;

/** The name and the id; the names of the catalogue need no escapes. */
std::string jsonMembers(std::string const& name, int id) {
    return "\"name\":\"" + name + "\",\"id\":" + std::to_string(id);
}

std::string json(VeskConfig const& catalogue) {
    std::string topics;
    for (std::string const& topic : topicNames(catalogue)) {
        int const topicId = catalogue.getTopicIdByName(topic);
        std::string businesses;
        for (std::string const& business : businessNames(catalogue, topic)) {
            businesses += (businesses.empty() ? "{" : ",{") +
                          jsonMembers(business, catalogue.getBussinessIdByName(topicId, business)) +
                          '}';
        }
        topics += (topics.empty() ? "{" : ",{") + jsonMembers(topic, topicId) +
                  ",\"businesses\":[" + businesses + "]}";
    }
    return "{\"topics\":[" + topics + "]}\n";
}

std::string table(VeskConfig const& catalogue) {
    std::string text = "business                  topic id  business id\n";
    for (std::string const& topic : topicNames(catalogue)) {
        int const topicId = catalogue.getTopicIdByName(topic);
        for (std::string const& business : businessNames(catalogue, topic)) {
            std::string name = topic;
            name += '/';
            name += business;
            char line[128];
            std::snprintf(line, sizeof(line), "%-24s  %8d  %11d\n", name.c_str(), topicId,
                          catalogue.getBussinessIdByName(topicId, business));
            text += line;
        }
    }
    return text;
}

}  // namespace

int runList(ListOptions const& options) {
    VeskConfig const catalogue;
    std::string const text = options.json ? json(catalogue) : table(catalogue);
    std::fputs(text.c_str(), stdout);
    return EXIT_OK;
}

}  // namespace vesk::tool
