#include "RunContext.h"

#include "core/execution/FolderSteps.h"
#include "core/foundation/Error.h"

namespace quorlin {

EnvironmentOverrides choiceOverrides(const FlowDefinition& flow, const RunChoices& choices) {
    EnvironmentOverrides overrides;
    const auto absolute = [](const std::filesystem::path& path) {
        return std::filesystem::absolute(path).string();
    };
    if (choices.inputFile) {
        const auto key = firstFileSettingEnvironmentKey(flow);
        if (!key) {
            throw Error("Workflow " + flow.id + " takes no input file.");
        }
        overrides[*key] = absolute(*choices.inputFile);
    }
    for (const auto& [setting, path] : choices.folders) {
        const auto key = folderSettingEnvironmentKey(flow, setting);
        if (!key) {
            throw Error("Workflow " + flow.id + " has no folder setting named " + setting + ".");
        }
        overrides[*key] = absolute(path);
    }
    return overrides;
}

} // namespace quorlin
