#include "cli/Commands.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Text.h"

#include <filesystem>
#include <iostream>

namespace quorlin::cli {

int fail(const std::string& message) {
    // Messages may quote what a file or a database held; nothing of it drives the terminal.
    std::cerr << "quorlin: " << escapedControlBytes(message) << '\n';
    return 1;
}

// Prints the document as the engine reads it, so an author sees how each scalar was
// typed.
int inspectCommand(const Arguments& arguments) {
    if (arguments.size() != 1) {
        return fail("usage: quorlin inspect <flow.yaml | bundle dir>");
    }
    std::filesystem::path file = arguments[0];
    if (std::filesystem::is_directory(file)) {
        file /= "flow.yaml";
    }
    const auto document = decodeWorkflowDocumentYaml(readFile(file));
    std::cout << toJson(document).dump(2) << '\n';
    return 0;
}

} // namespace quorlin::cli
