#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin schedule list`: each flow in force with its schedule as the app shows it.
int scheduleListCommand(const ParsedArguments& arguments);

// `quorlin schedule <flow-id> [--cron "<expr>" | --enable | --disable | --clear]`: shows,
// or changes and saves, one flow's schedule in the library preferences.
int scheduleCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
