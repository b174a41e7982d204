#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin deps status <flow-id>`: for Python and Node, whether the workflow lists
// packages, whether they are installed and current, and where they go.
int depsStatusCommand(const ParsedArguments& arguments);

// `quorlin deps install <flow-id>`: installs the packages a workflow's scripts need, ahead
// of its first run; pip's and npm's lines on stderr, the install's log on stdout.
int depsInstallCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
