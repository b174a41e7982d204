#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowInstaller.h"
#include "core/definitions/WorkflowPackager.h"

#include <filesystem>
#include <iostream>
#include <optional>

namespace quorlin::cli {

int installCommand(const ParsedArguments& arguments) {
    const WorkflowInstaller installer(AppSupportPaths::fromEnvironment());
    const auto result = installer.installPackage(arguments.operands[0]);
    std::cout << "Installed " << result.flowID << " " << result.version << " into "
              << result.installDirectory.string() << '\n';
    return 0;
}

int uninstallCommand(const ParsedArguments& arguments) {
    const auto& flowID = arguments.operands[0];
    const WorkflowInstaller installer(AppSupportPaths::fromEnvironment());
    if (installer.uninstallWorkflow(flowID)) {
        std::cout << "Uninstalled " << flowID << '\n';
    } else {
        std::cout << flowID << " is not installed; nothing to remove\n";
    }
    return 0;
}

int packCommand(const ParsedArguments& arguments) {
    std::optional<std::filesystem::path> output;
    if (const auto value = arguments.value("--output")) {
        output = *value;
    }
    const auto result = WorkflowPackager().pack(arguments.operands[0], output);
    std::cout << "Packed " << result.flowID << " " << result.version << " (" << result.fileCount
              << " files" << (result.manifestGenerated ? ", manifest generated" : "") << ") into "
              << result.packageFile.string() << '\n';
    return 0;
}

} // namespace quorlin::cli
