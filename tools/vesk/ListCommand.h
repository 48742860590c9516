#pragma once

namespace vesk::tool {

struct ListOptions {
    bool json = false;
};

/** vesk list: prints the catalogue, a line for each business. Returns the exit status. */
int runList(ListOptions const& options);

}  // namespace vesk::tool
