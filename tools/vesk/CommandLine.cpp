#include "CommandLine.h"

namespace vesk::tool {

namespace {

CommandLine::Option describe(CLI::Option const& option) {
    CommandLine::Option described;
    for (std::string const& name : option.get_snames())
        described.names.push_back("-" + name);
    for (std::string const& name : option.get_lnames())
        described.names.push_back("--" + name);
    if (described.names.empty()) described.word = option.get_name(true);
    if (option.get_items_expected_max() > 0) described.value = option.get_type_name();
    described.description = option.get_description();
    if (!option.get_default_str().empty()) {
        described.description += " (default: " + option.get_default_str() + ")";
    }
    if (!option.get_envname().empty()) {
        described.description += " (environment: " + option.get_envname() + ")";
    }
    if (option.get_required()) described.description += " (required)";
    described.required = option.get_required();
    described.repeats = option.get_items_expected_max() > 1;
    return described;
}

CommandLine::Group describeOptions(CLI::App const& app, std::string const& description) {
    CommandLine::Group group{description, {}};
    for (CLI::Option const* option : app.get_options({})) {
        // A group has a help option of its own, which its command's hides.
        bool const repeated = app.get_name().empty() && option == app.get_help_ptr();
        if (!repeated && !option->get_group().empty()) group.options.push_back(describe(*option));
    }
    return group;
}

}  // namespace

CommandLine::CommandLine(CLI::App const& app)
    : name(app.get_name()),
      description(app.get_description()),
      groups{describeOptions(app, "")},
      footer(app.get_footer()) {
    for (CLI::App const* part : app.get_subcommands({})) {
        if (part->get_group().empty()) continue;
        if (part->get_name().empty()) {
            groups.push_back(describeOptions(*part, part->get_description()));
        } else {
            commands.emplace_back(*part);
        }
    }
}

}  // namespace vesk::tool
