#pragma once

#include <string>

#include "CommandLine.h"

namespace vesk::tool {

/** The manual page of the program, with all commands, for man(1). */
std::string manualPage(CommandLine const& program);

}  // namespace vesk::tool
