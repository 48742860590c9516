#pragma once

#include <string>
#include <vector>

#include <vesk/VeskConfig.h>

namespace vesk::tool {

/** A business as the command line names it: TOPIC/BUSINESS. */
struct BusinessName {
    /** Throws UsageError. Whether there is such a business is for the host to say. */
    static BusinessName parse(std::string const& text);

    std::string toString() const { return topic + "/" + business; }

    std::string topic;
    std::string business;
};

/** The names of all topics of the catalogue, in the order of their ids. */
std::vector<std::string> topicNames(VeskConfig const& catalogue);

/** The names of a topic's businesses, in the order of their ids; none for an unknown topic. */
std::vector<std::string> businessNames(VeskConfig const& catalogue, std::string const& topic);

/** "a, b, c" */
std::string joinNames(std::vector<std::string> const& names);

}  // namespace vesk::tool
