#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// Handed each piece of what an install prints, as it arrives.
using ScriptDependencyOutput = std::function<void(std::string_view)>;

// One run of a package manager.
struct ScriptDependencyCommand {
    std::filesystem::path executable;
    std::vector<std::string> arguments;
    // Laid over this process's environment.
    std::map<std::string, std::string> environment;
    std::optional<std::filesystem::path> workingDirectory;
    // For messages: "pip", "npm".
    std::string name;
};

// Runs the command to its end and gives what it printed: stdout and stderr as one stream,
// in the order written, also handed to output as it arrives. A command that can't start,
// exits with other than 0 or runs past an hour throws
// ScriptDependencyInstallerError(processFailed) with what it printed; a stop ends it and
// throws CancellationError.
std::string runDependencyProcess(const ScriptDependencyCommand& command,
                                 const std::stop_token& stopToken,
                                 const ScriptDependencyOutput& output);

// The first executable file of that name in the folders of $PATH.
std::optional<std::filesystem::path> executableOnPath(std::string_view name);

} // namespace quorlin
