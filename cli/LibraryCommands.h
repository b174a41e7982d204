#pragma once

#include "cli/CommandLine.h"

namespace quorlin::cli {

// `quorlin folders`: the library's folders in order, each with its flows, then the flows
// in no folder, as the library shows them once brought into line with the flows in force.
int foldersCommand(const ParsedArguments& arguments);

// `quorlin reset [--yes]`: deletes everything Quorlin keeps in the data root, after
// asking, and lists what went.
int resetCommand(const ParsedArguments& arguments);

} // namespace quorlin::cli
