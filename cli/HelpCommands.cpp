#include "cli/Commands.h"

#include <iostream>

namespace quorlin::cli {

int helpCommand(const ParsedArguments& arguments) {
    if (arguments.operands.empty()) {
        std::cout << overviewHelp();
        return exitStatus::success;
    }
    const auto [command, rest] = findCommand(arguments.operands);
    if (!rest.empty()) {
        throw UsageError("no command '" + command->name + " " + rest[0] + "'");
    }
    std::cout << command->helpText();
    return exitStatus::success;
}

int completionCommand(const ParsedArguments& arguments) {
    const auto& shell = arguments.operands[0];
    if (shell != "bash" && shell != "zsh") {
        throw UsageError(unknownWordMessage("shell", shell, {"bash", "zsh"}) +
                             " (bash and zsh are supported)",
                         "completion");
    }
    std::cout << completionScript(shell);
    return exitStatus::success;
}

} // namespace quorlin::cli
