#include "cli/LibraryCommands.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowBundleLocator.h"
#include "core/foundation/Json.h"
#include "core/stores/FlowLibraryPreferencesStore.h"
#include "core/stores/LocalDataResetService.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <system_error>
#include <unistd.h>

namespace quorlin::cli {

namespace {

FlowLibraryPreferencesDocument libraryInForce(const AppSupportPaths& paths) {
    const WorkflowBundleLocator locator(QuorlinResources::installed(), paths);
    std::vector<std::string> ids;
    for (const auto& reference : locator.availableWorkflowReferences()) {
        ids.push_back(reference.flowID);
    }
    return FlowLibraryPreferencesStore(paths)
        .loadIfPresent()
        .value_or(FlowLibraryPreferencesDocument{})
        .normalized(ids);
}

void printGroup(const std::string& name, const std::vector<std::string>& flowIDs) {
    std::cout << name << '\n';
    if (flowIDs.empty()) {
        std::cout << "  (no flows)\n";
    }
    for (const auto& id : flowIDs) {
        std::cout << "  " << id << '\n';
    }
}

// What a reset will remove: the data root's entries, by name, sorted.
std::vector<std::string> entriesOf(const std::filesystem::path& root) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(root, error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string() +
                        (entry->is_directory(error) ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool confirmed(const std::filesystem::path& root) {
    std::cerr << "Delete everything Quorlin keeps in " << root.string()
              << "? This can't be undone. [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace

int foldersCommand(const ParsedArguments& arguments) {
    const auto library = libraryInForce(AppSupportPaths::fromEnvironment());
    if (arguments.has("--json")) {
        nlohmann::json folders = nlohmann::json::array();
        for (const auto& folder : library.folders) {
            folders.push_back({{"id", folder.id.uppercaseString()},
                               {"name", folder.name},
                               {"flowIDs", folder.flowIDs}});
        }
        std::cout << prettySortedJson({{"folders", folders},
                                       {"uncategorizedFlowIDs", library.uncategorizedFlowIDs}})
                  << '\n';
        return exitStatus::success;
    }
    for (const auto& folder : library.folders) {
        printGroup(folder.name, folder.flowIDs);
    }
    printGroup("In no folder", library.uncategorizedFlowIDs);
    return exitStatus::success;
}

int resetCommand(const ParsedArguments& arguments) {
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto& root = paths.root();
    const auto entries = entriesOf(root);
    if (entries.empty()) {
        std::cout << "Nothing to delete: " << root.string() << " holds no Quorlin data.\n";
        return exitStatus::success;
    }
    if (!arguments.has("--yes")) {
        if (isatty(STDIN_FILENO) == 0) {
            throw UsageError("reset asks before it deletes; with no one to answer, pass --yes",
                             "reset");
        }
        if (!confirmed(root)) {
            std::cerr << "Nothing was deleted.\n";
            return exitStatus::failure;
        }
    }
    LocalDataResetService([root] { return root; }, nullptr).resetAllLocalData("");
    std::cout << "Deleted " << root.string() << " with:\n";
    for (const auto& entry : entries) {
        std::cout << "  " << entry << '\n';
    }
    return exitStatus::success;
}

} // namespace quorlin::cli
