#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin cron "<expression>"`: checks a cron expression, describes it and lists its
// next runs in local time.
int cronCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
