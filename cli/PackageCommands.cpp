#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowInstaller.h"
#include "core/definitions/WorkflowPackager.h"

#include <filesystem>
#include <iostream>
#include <optional>

namespace quorlin::cli {

int installCommand(const Arguments& arguments) {
    if (arguments.size() != 1) {
        return fail("usage: quorlin install <file.quorlinflow>");
    }
    const WorkflowInstaller installer(AppSupportPaths::fromEnvironment());
    const auto result = installer.installPackage(arguments[0]);
    std::cout << "Installed " << result.flowID << " " << result.version << " into "
              << result.installDirectory.string() << '\n';
    return 0;
}

int uninstallCommand(const Arguments& arguments) {
    if (arguments.size() != 1) {
        return fail("usage: quorlin uninstall <flow-id>");
    }
    const WorkflowInstaller installer(AppSupportPaths::fromEnvironment());
    if (installer.uninstallWorkflow(arguments[0])) {
        std::cout << "Uninstalled " << arguments[0] << '\n';
    } else {
        std::cout << arguments[0] << " is not installed; nothing to remove\n";
    }
    return 0;
}

int packCommand(const Arguments& arguments) {
    std::optional<std::filesystem::path> bundle;
    std::optional<std::filesystem::path> output;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const auto& word = arguments[index];
        if ((word == "-o" || word == "--output") && index + 1 < arguments.size() && !output) {
            output = arguments[++index];
        } else if (!bundle && !word.starts_with("-")) {
            bundle = word;
        } else {
            return fail("usage: quorlin pack <bundle dir> [-o <file.quorlinflow>]");
        }
    }
    if (!bundle) {
        return fail("usage: quorlin pack <bundle dir> [-o <file.quorlinflow>]");
    }
    const auto result = WorkflowPackager().pack(*bundle, output);
    std::cout << "Packed " << result.flowID << " " << result.version << " (" << result.fileCount
              << " files" << (result.manifestGenerated ? ", manifest generated" : "") << ") into "
              << result.packageFile.string() << '\n';
    return 0;
}

} // namespace quorlin::cli
