#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <vesk/client/ClientProtocol.h>

#include "CallReport.h"

namespace vesk::tool {

/** The rows of the demo's table: a business and what came of its requests. */
using DemoRows = std::vector<std::pair<std::string, CallReport>>;

/** Prints a row for each business and their sum. */
void printTable(DemoRows const& rows);

/** Prints what a host has counted. */
void printHost(char const* name, client::Counters const& counters);

/** Draws the bar over itself, in one line of the terminal; nothing where stdout is no terminal. */
void printProgress(size_t done, size_t total);

/** Takes the bar away. */
void clearProgress();

}  // namespace vesk::tool
