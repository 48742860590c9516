#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace vesk::tool {

/** What a command line may hold, as it was defined for the parser: what help and manual tell of. */
struct CommandLine {
    struct Option {
        std::vector<std::string> names;  // such as "-w" and "--write"; none: a word by its place
        std::string word;                // the name of that
        bool required = false;
        bool repeats = false;     // it may hold several words
        std::string value;        // what it takes, such as "UINT"; empty: nothing
        std::string description;  // with the default and the environment variable
    };

    struct Group {
        std::string description;  // empty for the options that belong to no group
        std::vector<Option> options;
    };

    /** @param app the whole, or one of its commands. What is hidden is left out. */
    explicit CommandLine(CLI::App const& app);

    std::string name;
    std::string description;
    std::vector<Group> groups;
    std::vector<CommandLine> commands;
    std::string footer;
};

}  // namespace vesk::tool
