#pragma once

#include <string>
#include <vector>

namespace quorlin::cli {

using Arguments = std::vector<std::string>;

// Each command takes the words after its name and returns the process exit status.
int inspectCommand(const Arguments& arguments);
int runCommand(const Arguments& arguments);
int profileCommand(const Arguments& arguments);
int flowsCommand(const Arguments& arguments);
int validateCommand(const Arguments& arguments);
int installCommand(const Arguments& arguments);
int uninstallCommand(const Arguments& arguments);
int packCommand(const Arguments& arguments);
int historyCommand(const Arguments& arguments);

// Prints "quorlin: <message>" to stderr and returns the failure status.
int fail(const std::string& message);

} // namespace quorlin::cli
