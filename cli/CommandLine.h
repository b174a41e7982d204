#pragma once

#include "core/foundation/Error.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quorlin::cli {

using Arguments = std::vector<std::string>;

// What quorlin's exit status means, for scripts and service managers.
namespace exitStatus {
constexpr int success = 0;
constexpr int failure = 1;        // the command ran and failed
constexpr int usage = 2;          // the command line itself is wrong; nothing was done
constexpr int awaitingAnswer = 3; // a run stopped at its approval gate with no one to answer
constexpr int interrupted = 130;  // Ctrl-C or SIGTERM
} // namespace exitStatus

// One option a command takes. A value name makes it take the next word as its value.
struct OptionSpec {
    std::string name;                 // "--flow"
    std::string shortName;            // "-o", or empty
    std::string valueName;            // "<id>", or empty for a switch
    std::string help;                 // one line
    std::vector<std::string> choices; // the only values allowed, when not empty
    bool repeatable = false;
};

struct ParsedArguments;

// A command of the table that help, parsing and completion are all made from.
struct CommandSpec {
    std::string name;     // "history show" for a subcommand
    std::string operands; // "<flow-id | bundle dir>", as the usage line shows them
    std::string summary;  // one line for the command list
    std::string details;  // paragraphs for `quorlin help <command>`; may be empty
    std::vector<OptionSpec> options;
    std::size_t minOperands = 0;
    std::size_t maxOperands = 0;
    // What an operand completes to in the shell: "flows", "files", "dirs", or a fixed
    // word list separated by spaces.
    std::string operandCompletion;
    std::function<int(const ParsedArguments&)> run;

    std::string helpText() const;
};

// A command line made sense of against its command's spec.
struct ParsedArguments {
    const CommandSpec* command = nullptr;
    Arguments operands;
    std::map<std::string, std::vector<std::string>> values; // by long option name
    std::vector<std::string> switches;

    bool has(const std::string& option) const;
    std::optional<std::string> value(const std::string& option) const;
    const std::vector<std::string>& all(const std::string& option) const;
};

// The command line doesn't fit: the text says what is wrong and, where one is close, what
// was probably meant. Leads to exit status 2 and a pointer to the command's help.
class UsageError : public Error {
public:
    UsageError(const std::string& problem, std::string command = {});
    const std::string& command() const { return command_; }

private:
    std::string command_;
};

// "unknown <what> '<word>'<where>; did you mean '<closest>'?" — the hint only when one is
// close. where: " for 'history'", or empty.
std::string unknownWordMessage(const std::string& what, const std::string& word,
                               const std::vector<std::string>& known,
                               const std::string& where = {});

// Every command quorlin has, in the order the help lists them.
const std::vector<CommandSpec>& commandTable();

// The command a command line names ("history show" before "history"), and the words after
// its name. Throws UsageError for a command that doesn't exist.
std::pair<const CommandSpec*, Arguments> findCommand(const Arguments& words);

// Throws UsageError for an unknown option, a missing or disallowed value, or the wrong
// number of operands. "--help" is not handled here.
ParsedArguments parseArguments(const CommandSpec& command, const Arguments& words);

// The whole `quorlin --help` text.
std::string overviewHelp();

// A completion script for "bash" or "zsh", made from the command table.
std::string completionScript(const std::string& shell);

// Prints "quorlin: <message>" to stderr and returns the failure status.
int fail(const std::string& message);

} // namespace quorlin::cli
