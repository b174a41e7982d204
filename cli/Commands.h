#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// Each command takes its parsed command line and returns the process exit status.
int runCommand(const ParsedArguments& arguments);
int flowsCommand(const ParsedArguments& arguments);
int validateCommand(const ParsedArguments& arguments);
int inspectCommand(const ParsedArguments& arguments);
int blocksCommand(const ParsedArguments& arguments);
int historyCommand(const ParsedArguments& arguments);
int historyShowCommand(const ParsedArguments& arguments);
int installCommand(const ParsedArguments& arguments);
int uninstallCommand(const ParsedArguments& arguments);
int packCommand(const ParsedArguments& arguments);
int profileCommand(const ParsedArguments& arguments);
int settingsCommand(const ParsedArguments& arguments);
int llmCheckCommand(const ParsedArguments& arguments);
int settingsSetCommand(const ParsedArguments& arguments);
int completionCommand(const ParsedArguments& arguments);
int helpCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
