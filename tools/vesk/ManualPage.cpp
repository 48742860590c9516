#include "ManualPage.h"

#include <algorithm>
#include <cctype>

namespace vesk::tool {

namespace {

// For roff: no escapes, no hyphen for a minus sign, and no request at the beginning of a line.
std::string plain(std::string const& text) {
    std::string safe;
    for (char const c : text) {
        bool const begins = safe.empty() || safe.back() == '\n';
        if (begins && (c == '.' || c == '\'')) safe += "\\&";
        if (c == '\\') {
            safe += "\\e";
        } else {
            safe += c == '-' ? "\\-" : std::string(1, c);
        }
    }
    return safe;
}

std::string bold(std::string const& text) {
    return "\\fB" + plain(text) + "\\fR";
}

std::string italic(std::string const& text) {
    return "\\fI" + plain(text) + "\\fR";
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::string optionText(CommandLine::Option const& option) {
    std::string head;
    for (std::string const& name : option.names)
        head += (head.empty() ? "" : ", ") + bold(name);
    if (option.names.empty()) head = italic(upper(option.word));
    if (!option.names.empty() && !option.value.empty()) head += " " + italic(option.value);
    return ".TP\n" + head + "\n" + plain(option.description) + "\n";
}

std::string optionsText(CommandLine const& command) {
    std::string text;
    for (CommandLine::Group const& group : command.groups) {
        if (!group.description.empty()) text += ".PP\n" + plain(group.description) + ":\n";
        for (CommandLine::Option const& option : group.options)
            text += optionText(option);
    }
    return text;
}

/** Its examples stand as they are, each in a line. */
std::string footerText(std::string const& footer) {
    std::string const head = "Examples:\n";
    size_t const examples = footer.find(head);
    if (examples == std::string::npos) return footer.empty() ? "" : ".PP\n" + plain(footer) + "\n";
    std::string const before = footer.substr(0, examples);
    return (before.empty() ? "" : ".PP\n" + plain(before)) + ".PP\n" + plain(head) + ".PP\n.nf\n" +
           plain(footer.substr(examples + head.size())) + "\n.fi\n";
}

/** A word by its place: optional in brackets, and with dots where there may be several. */
std::string wordText(CommandLine::Option const& option) {
    std::string const word = italic(upper(option.word));
    return (option.required ? word : "[" + word + "]") + (option.repeats ? "..." : "");
}

std::string synopsis(CommandLine const& program, CommandLine const& command) {
    std::string text =
            ".PP\n" + bold(program.name + " " + command.name) + " [" + italic("OPTION") + "]...";
    for (CommandLine::Group const& group : command.groups) {
        for (CommandLine::Option const& option : group.options) {
            if (option.names.empty()) text += " " + wordText(option);
        }
    }
    return text + "\n";
}

}  // namespace

std::string manualPage(CommandLine const& program) {
    std::string text = ".TH " + upper(program.name) + " 1 \"\" \"vesk " VESK_VERSION "\"\n" +
                       ".SH NAME\n" + program.name + " \\- " + plain(program.description) + "\n" +
                       ".SH SYNOPSIS\n";
    for (CommandLine const& command : program.commands)
        text += synopsis(program, command);
    text += ".SH OPTIONS\n" + optionsText(program) + ".SH COMMANDS\n";
    for (CommandLine const& command : program.commands) {
        text += ".SS \"" + program.name + " " + command.name + "\"\n" + plain(command.description) +
                "\n" + optionsText(command);
        text += footerText(command.footer);
    }
    return text + ".SH NOTES\n" + plain(program.footer) + "\n";
}

}  // namespace vesk::tool
