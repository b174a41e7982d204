#include "cli/Commands.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/AtomicFile.h"

#include <filesystem>
#include <iostream>

namespace quorlin::cli {

// Prints the document as the engine reads it, so an author sees how each scalar was
// typed.
int inspectCommand(const ParsedArguments& arguments) {
    std::filesystem::path file = arguments.operands[0];
    if (std::filesystem::is_directory(file)) {
        file /= "flow.yaml";
    }
    const auto document = decodeWorkflowDocumentYaml(readFile(file));
    std::cout << toJson(document).dump(2) << '\n';
    return 0;
}

} // namespace quorlin::cli
