#include "WorkflowWarnings.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/ScriptRuntime.h"
#include "core/definitions/StepTypes.h"
#include "core/definitions/TriggerTypes.h"
#include "core/definitions/WorkflowKeyWarnings.h"
#include "core/definitions/WorkflowTemplateCheck.h"
#include "core/definitions/WorkflowWarningList.h"
#include "core/foundation/ClosestWord.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

namespace quorlin {

using namespace warnings;

namespace {

std::vector<std::string> runtimeNames() {
    std::vector<std::string> names;
    for (const auto runtime : allScriptRuntimes) {
        names.emplace_back(rawValue(runtime));
    }
    return names;
}

// ---- step types and settings --------------------------------------------------------

void checkStepType(const FlowStep& step, WarningList& out) {
    const auto& known = stepType::knownStepTypes;
    if (std::find(known.begin(), known.end(), step.type) != known.end()) {
        return;
    }
    const auto names = knownStepTypeNames();
    const auto suggestion = closestWord(step.type, names);
    out.add(step.id, stepPrefix(step) + "type " + inQuotes(step.type) + " is not a step type" +
                         (suggestion ? didYouMean(suggestion)
                                     : "; the step types are " + listed(names) + "."));
}

const WorkflowValue* settingValue(const std::optional<WorkflowValueMap>& map,
                                  std::string_view key) {
    if (!map) {
        return nullptr;
    }
    const auto found = map->find(std::string(key));
    return found == map->end() ? nullptr : &found->second;
}

const std::optional<WorkflowValueMap>& place(const FlowStep& step, std::string_view name) {
    return name == "config" ? step.config : step.action;
}

// The first text under key in the named places, as the handlers read it: a value that is
// not text is passed over.
std::optional<std::string> settingText(const FlowStep& step, std::string_view key,
                                       std::initializer_list<std::string_view> places) {
    for (const auto name : places) {
        if (const auto* value = settingValue(place(step, name), key); value && value->string()) {
            return *value->string();
        }
    }
    return std::nullopt;
}

// A key in the named places that looks like a typo of key.
std::optional<std::pair<std::string, std::string_view>>
nearMissSetting(const FlowStep& step, std::string_view key,
                std::initializer_list<std::string_view> places) {
    const std::vector<std::string> wanted{std::string(key)};
    for (const auto name : places) {
        if (const auto& map = place(step, name)) {
            for (const auto& [written, value] : *map) {
                if (written != key && closestWord(written, wanted)) {
                    return std::pair(written, name);
                }
            }
        }
    }
    return std::nullopt;
}

// A setting the step's handler refuses to run without. A near-miss key where the setting
// belongs, or the setting written on the step itself, is the likelier fault, so the
// warning names that instead.
void warnMissingSetting(const StepScope& scope, std::string_view key,
                        std::initializer_list<std::string_view> places, std::string_view need,
                        WarningList& out) {
    const FlowStep& step = scope.step;
    const std::string prefix = stepPrefix(step);
    if (const auto nearMiss = nearMissSetting(step, key, places)) {
        out.add(step.id, prefix + "unknown key " + inQuotes(nearMiss->first) + " in " +
                             std::string(nearMiss->second) + didYouMean(std::string(key)));
        return;
    }
    std::vector<std::string> placeNames;
    bool present = false;
    for (const auto name : places) {
        placeNames.emplace_back(name);
        present = present || settingValue(place(step, name), key) != nullptr;
    }
    if (!present && scope.raw.find(key) != nullptr) {
        out.add(step.id, prefix + inQuotes(key) + " belongs under " + placeNames.front() +
                             ", not on the step itself.");
        return;
    }
    const std::string where = listed(placeNames, " or ");
    out.add(step.id, prefix +
                         (present ? inQuotes(key) + " in " + where + " is blank or not text; "
                                  : "no " + inQuotes(key) + " in " + where + "; ") +
                         std::string(need));
}

// Scripts are found by appending the name to the bundle folder, and a name holding ".."
// is refused outright.
void checkScriptFile(const FlowStep& step, const std::string& relative,
                     const std::filesystem::path& bundleDirectory, WarningList& out) {
    const std::string prefix = stepPrefix(step) + "script " + inQuotes(relative);
    if (relative.find("..") != std::string::npos) {
        out.add(step.id, prefix + " reaches outside the bundle; name it from the bundle folder.");
        return;
    }
    std::error_code error;
    if (!std::filesystem::exists(bundleDirectory.string() + "/" + relative, error)) {
        out.add(step.id, prefix + " does not exist in the bundle.");
    }
}

void checkPlainScriptRuntime(const StepScope& scope, WarningList& out) {
    const auto runtime = settingText(scope.step, "runtime", {"config", "action"});
    if (!runtime) {
        warnMissingSetting(scope, "runtime", {"config", "action"},
                           "a script step needs one of " + listed(runtimeNames()) + ".", out);
    } else if (!scriptRuntimeFromRawValue(*runtime)) {
        out.add(scope.step.id, stepPrefix(scope.step) + "runtime " + inQuotes(*runtime) +
                                   " is not one of " + listed(runtimeNames()) + ".");
    }
}

void checkPlainScriptEntrypoint(const StepScope& scope, WarningList& out) {
    if (const auto entrypoint = settingText(scope.step, "entrypoint", {"config", "action"})) {
        checkScriptFile(scope.step, *entrypoint, scope.bundleDirectory, out);
    } else {
        warnMissingSetting(scope, "entrypoint", {"config", "action"},
                           "a script step needs the path of its script.", out);
    }
}

// A script block's own runtime wins; a blank one leaves it to the step. Its entrypoint
// was checked with the block.
void checkScriptBlockRuntime(const StepScope& scope, const BlockExecutionDefinition& execution,
                             WarningList& out) {
    const std::string runtime = trimmed(execution.runtime.value_or(""));
    if (runtime.empty()) {
        checkPlainScriptRuntime(scope, out);
    } else if (!scriptRuntimeFromBlockValue(runtime)) {
        out.add(scope.step.id, stepPrefix(scope.step) + "runtime " + inQuotes(runtime) +
                                   " of block " + scope.block->definition.id + " is not one of " +
                                   listed(runtimeNames()) + ".");
    }
}

const BlockExecutionDefinition* scriptExecution(const WorkflowBlockResolution* block) {
    if (block == nullptr || !block->definition.execution ||
        block->definition.execution->kind != BlockExecutionKind::script) {
        return nullptr;
    }
    return &*block->definition.execution;
}

void checkScriptSettings(const StepScope& scope, WarningList& out) {
    if (const auto* execution = scriptExecution(scope.block)) {
        checkScriptBlockRuntime(scope, *execution, out);
        if (trimmed(execution->entrypoint.value_or("")).empty()) {
            checkPlainScriptEntrypoint(scope, out);
        }
    } else if (scope.step.type == stepType::scriptRun) {
        checkPlainScriptRuntime(scope, out);
        checkPlainScriptEntrypoint(scope, out);
    }
}

// The text of a config key, trimmed; none when it is missing, not text, or blank.
std::optional<std::string> configText(const FlowStep& step, std::string_view key) {
    const auto text = settingText(step, key, {"config"});
    if (!text || trimmed(*text).empty()) {
        return std::nullopt;
    }
    return trimmed(*text);
}

// Prompts are read only from inside the bundle, and never through a link.
void checkPromptFile(const StepScope& scope, const std::string& written, WarningList& out) {
    const std::string prefix = stepPrefix(scope.step) + "prompt " + inQuotes(written);
    const auto relative = validRelativePackagePath(written);
    if (!relative) {
        out.add(scope.step.id, prefix + " is not a path inside the bundle.");
        return;
    }
    const auto file = scope.bundleDirectory / *relative;
    std::error_code error;
    if (std::filesystem::is_symlink(std::filesystem::symlink_status(file, error))) {
        out.add(scope.step.id, prefix + " is a symbolic link; put the file itself in the bundle.");
    } else if (!std::filesystem::exists(file, error)) {
        out.add(scope.step.id, prefix + " does not exist in the bundle.");
    }
}

// The script an LLM step falls back to; only a step that asks for it needs one.
void checkFallbackScript(const StepScope& scope, WarningList& out) {
    const FlowStep& step = scope.step;
    if (configText(step, "fallback_strategy") != "bundled_script") {
        return;
    }
    if (const auto script = configText(step, "fallback_script")) {
        if (validRelativePackagePath(*script)) {
            checkScriptFile(step, *script, scope.bundleDirectory, out);
        } else {
            out.add(step.id, stepPrefix(step) + "script " + inQuotes(*script) +
                                 " is not a path inside the bundle.");
        }
    } else {
        warnMissingSetting(scope, "fallback_script", {"config"},
                           "its fallback_strategy bundled_script needs the path of a script.", out);
    }
    const auto runtime = configText(step, "fallback_runtime").value_or("python");
    if (!scriptRuntimeFromRawValue(runtime)) {
        out.add(step.id, stepPrefix(step) + "fallback_runtime " + inQuotes(runtime) +
                             " is not one of " + listed(runtimeNames()) + ".");
    }
}

void checkLLMSettings(const StepScope& scope, WarningList& out) {
    if (scope.step.type != stepType::llmGenerateStructured) {
        return;
    }
    if (const auto prompt = configText(scope.step, "prompt_template")) {
        checkPromptFile(scope, *prompt, out);
    } else {
        warnMissingSetting(scope, "prompt_template", {"config"},
                           "an LLM step needs the path of its prompt.", out);
    }
    checkFallbackScript(scope, out);
}

// Both context steps render the folders they work in from the step's action.
void checkContextSettings(const StepScope& scope, WarningList& out) {
    const auto& type = scope.step.type;
    if (type != stepType::contextPrepare && type != stepType::contextLoad) {
        return;
    }
    for (const std::string_view key : {"target_folder", "read_folder"}) {
        const auto folder = settingText(scope.step, key, {"action"});
        if (!folder || trimmed(*folder).empty()) {
            warnMissingSetting(scope, key, {"action"}, "a context step needs this folder.", out);
        }
    }
}

// ---- triggers -----------------------------------------------------------------------

void checkTriggers(const FlowDefinition& flow, WarningList& out) {
    const auto& known = triggerType::knownTriggerTypes;
    const auto names = knownTriggerTypeNames();
    for (std::size_t index = 0; index < flow.triggers.size(); ++index) {
        const auto& type = flow.triggers[index].type;
        if (std::find(known.begin(), known.end(), type) != known.end()) {
            continue;
        }
        const auto suggestion = closestWord(type, names);
        out.add("",
                "Trigger " + std::to_string(index + 1) + ": type " + inQuotes(type) +
                    " is not a trigger type" +
                    (suggestion ? didYouMean(suggestion) : "; use one of " + listed(names) + "."));
    }
}

// ---- putting it together ------------------------------------------------------------

const WorkflowBlockResolution* blockFor(const FlowStep& step,
                                        const std::vector<WorkflowBlockResolution>& blocks) {
    const auto found = std::find_if(blocks.begin(), blocks.end(),
                                    [&](const auto& block) { return block.stepID == step.id; });
    return found == blocks.end() ? nullptr : &*found;
}

// The step's own mapping in the raw tree, which the document was decoded from.
const YamlNode& rawStep(const YamlNode& raw, std::size_t index) {
    static const YamlNode none = YamlNode::mapping();
    const auto* flow = raw.find("flow");
    const auto* steps = flow ? flow->find("steps") : nullptr;
    return steps && index < steps->items.size() ? steps->items[index] : none;
}

} // namespace

std::vector<WorkflowWarning> workflowWarnings(const WorkflowDocument& document, const YamlNode& raw,
                                              const std::filesystem::path& bundleDirectory,
                                              const std::vector<WorkflowBlockResolution>& blocks) {
    const FlowDefinition& flow = document.flow;
    const auto unknownKeys = unknownWorkflowKeys(raw);
    WarningList out;
    addFlowKeyWarnings(unknownKeys, out);
    checkTriggers(flow, out);

    const TemplateCheck templates(flow, out);
    std::set<std::filesystem::path> manifestsSeen;
    for (std::size_t index = 0; index < flow.steps.size(); ++index) {
        const FlowStep& step = flow.steps[index];
        const StepScope scope{step, rawStep(raw, index), blockFor(step, blocks), bundleDirectory};
        addStepKeyWarnings(step, index, unknownKeys, out);
        // A bundle's block manifest is read once, however many steps use it.
        if (scope.block && scope.block->definitionPath &&
            manifestsSeen.insert(*scope.block->definitionPath).second) {
            addBlockManifestKeyWarnings(scope, out);
        }
        checkStepType(step, out);
        checkScriptSettings(scope, out);
        checkLLMSettings(scope, out);
        checkContextSettings(scope, out);
        templates.check(step, index);
    }
    return out.take();
}

} // namespace quorlin
