#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin runtimes status`: for Python and Node, where scripts run, in the order the
// interpreters are tried, and where the managed build is downloaded from.
int runtimesStatusCommand(const ParsedArguments& arguments);

// `quorlin runtimes install python|node`: downloads, verifies and unpacks the managed
// build, with its progress on stderr and the install's log on stdout.
int runtimesInstallCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
