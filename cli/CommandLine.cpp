#include "cli/CommandLine.h"

#include "core/foundation/ClosestWord.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <iostream>

namespace quorlin::cli {

namespace {

const OptionSpec* findOption(const CommandSpec& command, const std::string& word) {
    for (const auto& option : command.options) {
        if (word == option.name || (!option.shortName.empty() && word == option.shortName)) {
            return &option;
        }
    }
    return nullptr;
}

std::vector<std::string> optionNames(const CommandSpec& command) {
    std::vector<std::string> names;
    for (const auto& option : command.options) {
        names.push_back(option.name);
    }
    names.push_back("--help");
    return names;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const auto& word : words) {
        text += (text.empty() ? "" : separator) + word;
    }
    return text;
}

// A choice given in another letter case is taken as the choice itself.
std::string checkedChoice(const CommandSpec& command, const OptionSpec& option,
                          const std::string& value) {
    if (option.choices.empty()) {
        return value;
    }
    for (const auto& choice : option.choices) {
        if (lowercased(value) == lowercased(choice)) {
            return choice;
        }
    }
    throw UsageError(unknownWordMessage("value", value, option.choices,
                                        " for " + option.name +
                                            " (one of: " + joined(option.choices, ", ") + ")"),
                     command.name);
}

std::string operandCountProblem(const CommandSpec& command, const Arguments& operands) {
    if (operands.size() < command.minOperands) {
        return "'" + command.name + "' needs " + command.operands;
    }
    return "unexpected argument '" + operands[command.maxOperands] + "' for '" + command.name + "'";
}

} // namespace

std::string CommandSpec::helpText() const {
    std::string text = "Usage: quorlin " + name + (options.empty() ? "" : " [options]") +
                       (operands.empty() ? "" : " " + operands) + "\n\n" + summary + "\n";
    if (!details.empty()) {
        text += "\n" + details + "\n";
    }
    text += "\nOptions:\n";
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto& option : options) {
        std::string left = option.shortName.empty() ? "    " : option.shortName + ", ";
        left += option.name + (option.valueName.empty() ? "" : " " + option.valueName);
        rows.emplace_back(left, option.help);
    }
    rows.emplace_back("-h, --help", "Show this help.");
    std::size_t width = 0;
    for (const auto& row : rows) {
        width = std::max(width, row.first.size());
    }
    for (const auto& [left, help] : rows) {
        text += "  " + left + std::string(width - left.size() + 3, ' ') + help + "\n";
    }
    return text;
}

bool ParsedArguments::has(const std::string& option) const {
    return values.contains(option) ||
           std::find(switches.begin(), switches.end(), option) != switches.end();
}

std::optional<std::string> ParsedArguments::value(const std::string& option) const {
    const auto found = values.find(option);
    if (found == values.end() || found->second.empty()) {
        return std::nullopt;
    }
    return found->second.back();
}

const std::vector<std::string>& ParsedArguments::all(const std::string& option) const {
    static const std::vector<std::string> none;
    const auto found = values.find(option);
    return found == values.end() ? none : found->second;
}

UsageError::UsageError(const std::string& problem, std::string command)
    : Error(problem), command_(std::move(command)) {}

std::string unknownWordMessage(const std::string& what, const std::string& word,
                               const std::vector<std::string>& known, const std::string& where) {
    std::string message = "unknown " + what + " '" + word + "'" + where;
    if (const auto closest = closestWord(word, known)) {
        message += "; did you mean '" + *closest + "'?";
    }
    return message;
}

std::pair<const CommandSpec*, Arguments> findCommand(const Arguments& words) {
    const auto& table = commandTable();
    if (words.size() >= 2) {
        const auto twoWords = words[0] + " " + words[1];
        for (const auto& command : table) {
            if (command.name == twoWords) {
                return {&command, Arguments(words.begin() + 2, words.end())};
            }
        }
    }
    for (const auto& command : table) {
        if (command.name == words.at(0)) {
            return {&command, Arguments(words.begin() + 1, words.end())};
        }
    }
    std::vector<std::string> names;
    std::string subcommands; // of words[0], when it only leads two-word commands
    for (const auto& command : table) {
        const auto space = command.name.find(' ');
        if (space == std::string::npos) {
            names.push_back(command.name);
        } else if (command.name.substr(0, space) == words[0]) {
            subcommands += (subcommands.empty() ? "" : ", ") + command.name.substr(space + 1);
        }
    }
    if (!subcommands.empty()) {
        throw UsageError("'" + words[0] + "' needs one of: " + subcommands);
    }
    throw UsageError(unknownWordMessage("command", words[0], names));
}

ParsedArguments parseArguments(const CommandSpec& command, const Arguments& words) {
    ParsedArguments parsed;
    parsed.command = &command;
    bool optionsEnded = false;
    for (std::size_t index = 0; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (optionsEnded || word == "-" || !startsWith(word, "-")) {
            parsed.operands.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        // "--name=value" reads like "--name value".
        std::string name = word;
        std::optional<std::string> attached;
        if (const auto equals = word.find('=');
            startsWith(word, "--") && equals != std::string::npos) {
            name = word.substr(0, equals);
            attached = word.substr(equals + 1);
        }
        const OptionSpec* option = findOption(command, name);
        if (!option) {
            throw UsageError(unknownWordMessage("option", name, optionNames(command),
                                                " for '" + command.name + "'"),
                             command.name);
        }
        if (option->valueName.empty()) {
            if (attached) {
                throw UsageError(option->name + " takes no value", command.name);
            }
            parsed.switches.push_back(option->name);
            continue;
        }
        if (!attached && index + 1 >= words.size()) {
            throw UsageError(option->name + " needs a value: " + option->valueName, command.name);
        }
        auto& slot = parsed.values[option->name];
        if (!slot.empty() && !option->repeatable) {
            throw UsageError(option->name + " is given twice", command.name);
        }
        slot.push_back(checkedChoice(command, *option, attached ? *attached : words[++index]));
    }
    if (parsed.operands.size() < command.minOperands ||
        parsed.operands.size() > command.maxOperands) {
        throw UsageError(operandCountProblem(command, parsed.operands), command.name);
    }
    return parsed;
}

std::string overviewHelp() {
    std::string text = "Usage: quorlin <command> [options] [arguments]\n\nCommands:\n";
    std::size_t width = 0;
    for (const auto& command : commandTable()) {
        width = std::max(width, command.name.size() + 1 + command.operands.size());
    }
    for (const auto& command : commandTable()) {
        const std::string left =
            command.name + (command.operands.empty() ? "" : " " + command.operands);
        text += "  " + left + std::string(width - left.size() + 3, ' ') + command.summary + "\n";
    }
    text += R"(
Options:
  -h, --help       Show this help; 'quorlin help <command>' shows a command's options.
  -V, --version    Show the version.

Exit status: 0 done, 1 failed, 2 the command line is wrong, 3 a run waits for
approval and nobody could answer, 130 interrupted.

Data lives in $QUORLIN_APP_SUPPORT_ROOT, else $XDG_DATA_HOME/Quorlin,
else ~/.local/share/Quorlin.
)";
    return text;
}

int fail(const std::string& message) {
    // Messages may quote what a file or a database held; nothing of it drives the terminal.
    std::cerr << "quorlin: " << escapedControlBytes(message) << '\n';
    return exitStatus::failure;
}

} // namespace quorlin::cli
