#pragma once

#include <string>

#include "CommandLine.h"

namespace vesk::tool {

/** What bash reads to complete the words of a command line of the program. */
std::string bashCompletion(CommandLine const& program);

}  // namespace vesk::tool
