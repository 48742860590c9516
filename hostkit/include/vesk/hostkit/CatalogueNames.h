#pragma once

#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskExport.h>

namespace vesk::hostkit {

/*
 * What a host says of its catalogue to people. Every function may be called from any thread.
 */

/** The names of all topics of the catalogue, in the order of their ids. */
VESK_EXPORT std::vector<std::string> topicNames(VeskConfig const& catalogue);

/** The names of a topic's businesses, in the order of their ids; none for an unknown topic. */
VESK_EXPORT std::vector<std::string> businessNames(VeskConfig const& catalogue,
                                                   std::string const& topic);

/** "a, b, c" */
VESK_EXPORT std::string joinNames(std::vector<std::string> const& names);

}  // namespace vesk::hostkit
