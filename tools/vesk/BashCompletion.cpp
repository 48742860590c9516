#include "BashCompletion.h"

namespace vesk::tool {

namespace {

std::string join(std::vector<std::string> const& words, char const* between) {
    std::string text;
    for (std::string const& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

/** The names of all options of a command, or of those that take a value. */
std::vector<std::string> optionNames(CommandLine const& command, bool onlyWithValue) {
    std::vector<std::string> found;
    for (CommandLine::Group const& group : command.groups) {
        for (CommandLine::Option const& option : group.options) {
            if (onlyWithValue && option.value.empty()) continue;
            found.insert(found.end(), option.names.begin(), option.names.end());
        }
    }
    return found;
}

bool takesBusiness(CommandLine const& command) {
    for (CommandLine::Group const& group : command.groups) {
        for (CommandLine::Option const& option : group.options) {
            if (option.word == "business") return true;
        }
    }
    return false;
}

std::string commandCase(CommandLine const& program, CommandLine const& command) {
    std::vector<std::string> words = optionNames(command, false);
    for (std::string const& word : optionNames(program, false))
        words.push_back(word);
    std::string text =
            "        " + command.name + ")\n            words='" + join(words, " ") + "'\n";
    if (takesBusiness(command)) {
        text += "            words+=\" $(\"$1\" list 2>/dev/null | sed -n '2,$s/ .*//p')\"\n";
    }
    std::vector<std::string> const values = optionNames(command, true);
    if (!values.empty()) text += "            values='" + join(values, " ") + "'\n";
    return text + "            ;;\n";
}

}  // namespace

std::string bashCompletion(CommandLine const& program) {
    std::vector<std::string> commands;
    std::string cases;
    for (CommandLine const& command : program.commands) {
        commands.push_back(command.name);
        cases += commandCase(program, command);
    }
    return "# bash completion for " + program.name + "\n\n_" + program.name + "() {\n" +
           "    local word command='' values='' words='" + join(optionNames(program, false), " ") +
           " " + join(commands, " ") + "'\n" +
           "    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n" +
           "    for word in \"${COMP_WORDS[@]:1:COMP_CWORD - 1}\"; do\n"
           "        case $word in\n            " +
           join(commands, " | ") + ") command=$word && break ;;\n        esac\n    done\n" +
           "    case $command in\n" + cases + "    esac\n" +
           "    # What stands behind an option that takes a value, or begins no word, is a file.\n"
           "    if [[ \" $values \" != *\" $before \"* ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "        [[ ${#COMPREPLY[@]} -eq 0 ]] || return 0\n"
           "    fi\n"
           "    mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
           "}\n\ncomplete -F _" +
           program.name + " " + program.name + "\n";
}

}  // namespace vesk::tool
