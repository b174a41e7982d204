#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin scheduler`: fires the flows' schedules in the foreground, a line on stderr per
// firing and per result, until SIGTERM or Ctrl-C.
int schedulerCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
