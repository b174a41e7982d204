#include "WorkflowWarnings.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/RecordDecoding.h"
#include "core/definitions/ScriptRuntime.h"
#include "core/definitions/StepTypes.h"
#include "core/definitions/TriggerTypes.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/ClosestWord.h"
#include "core/foundation/Regex.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

namespace quorlin {

namespace {

// The decoder's coding path of the step list; its items are "flow.steps[<index>]".
const std::string stepsPath = "flow.steps";

// Warnings in the order they were found, each said once.
class WarningList {
public:
    void add(const std::string& stepID, std::string message) {
        WorkflowWarning warning{stepID, std::move(message)};
        if (std::find(items_.begin(), items_.end(), warning) == items_.end()) {
            items_.push_back(std::move(warning));
        }
    }

    std::vector<WorkflowWarning> take() { return std::move(items_); }

private:
    std::vector<WorkflowWarning> items_;
};

// What each step check needs to know besides the step itself.
struct StepScope {
    const FlowStep& step;
    const YamlNode& raw; // the step's own mapping
    const WorkflowBlockResolution* block;
    const std::filesystem::path& bundleDirectory;
};

std::string inQuotes(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string stepPrefix(const FlowStep& step) {
    return "Step " + inQuotes(step.id) + ": ";
}

// "a, b, c", or "a or b" with " or " as separator.
std::string listed(const std::vector<std::string>& names, std::string_view separator = ", ") {
    std::string text;
    for (const auto& name : names) {
        text += (text.empty() ? "" : std::string(separator)) + name;
    }
    return text;
}

std::string didYouMean(const std::optional<std::string>& suggestion) {
    return suggestion ? "; did you mean " + inQuotes(*suggestion) + "?" : ".";
}

std::vector<std::string> runtimeNames() {
    std::vector<std::string> names;
    for (const auto runtime : allScriptRuntimes) {
        names.emplace_back(rawValue(runtime));
    }
    return names;
}

// Pieces between separators, empty ones dropped, as template paths are read at run time:
// "steps..a" has the pieces of "steps.a".
std::vector<std::string> pieces(std::string_view text, char separator) {
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find(separator, start), text.size());
        if (end > start) {
            result.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return result;
}

// ---- keys the decoder ignores -------------------------------------------------------

std::vector<UnknownRecordKey> unknownWorkflowKeys(const YamlNode& raw) {
    return unknownRecordKeys(raw, [](const YamlNode& root) { decodeWorkflowDocument(root); });
}

// Where a key lies within the step at index: "" among the step's own keys, "outputs[0]"
// in a record inside it; none when it lies outside that step.
std::optional<std::string> placeInStep(const UnknownRecordKey& unknown, std::size_t index) {
    const std::string own = indexPath(stepsPath, index);
    if (unknown.path == own) {
        return "";
    }
    if (startsWith(unknown.path, own + ".")) {
        return unknown.path.substr(own.size() + 1);
    }
    return std::nullopt;
}

bool isInAStep(const UnknownRecordKey& unknown) {
    return startsWith(unknown.path, stepsPath + "[");
}

// "unknown key 'x' in <where>; did you mean 'y'?"
std::string unknownKeyText(const UnknownRecordKey& unknown, std::string_view where) {
    std::string text = "unknown key " + inQuotes(unknown.key);
    if (!where.empty()) {
        text += " in " + std::string(where);
    }
    return text + didYouMean(unknown.suggestion);
}

void addFlowKeyWarnings(const std::vector<UnknownRecordKey>& unknownKeys, WarningList& out) {
    for (const auto& unknown : unknownKeys) {
        if (!isInAStep(unknown)) {
            const std::string where =
                unknown.path.empty() ? "At the top level" : "In " + unknown.path;
            out.add("", where + ": " + unknownKeyText(unknown, ""));
        }
    }
}

void addStepKeyWarnings(const FlowStep& step, std::size_t index,
                        const std::vector<UnknownRecordKey>& unknownKeys, WarningList& out) {
    for (const auto& unknown : unknownKeys) {
        if (const auto where = placeInStep(unknown, index)) {
            out.add(step.id, stepPrefix(step) + unknownKeyText(unknown, *where));
        }
    }
}

// The keys of a bundle's own block manifest, read again from its file. One the validator
// accepted decodes here too; a file changed since then is passed over, as the next load
// reports it.
void addBlockManifestKeyWarnings(const StepScope& scope, WarningList& out) {
    const auto& file = scope.block->definitionPath;
    if (!file) {
        return;
    }
    std::vector<UnknownRecordKey> found;
    try {
        found = unknownRecordKeys(parseYaml(readFile(*file)),
                                  [](const YamlNode& root) { decodeBlockDefinition(root); });
    } catch (const std::exception&) {
        return;
    }
    const auto manifest = file->lexically_relative(scope.bundleDirectory).generic_string();
    for (const auto& unknown : found) {
        const auto where = unknown.path.empty() ? manifest : manifest + " (" + unknown.path + ")";
        out.add(scope.step.id, stepPrefix(scope.step) + unknownKeyText(unknown, where));
    }
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

// ---- templates ----------------------------------------------------------------------

void forEachString(const WorkflowValue& value,
                   const std::function<void(const std::string&)>& visit) {
    if (const auto* text = value.string()) {
        visit(*text);
    } else if (const auto* array = value.array()) {
        for (const auto& item : *array) {
            forEachString(item, visit);
        }
    } else if (const auto* object = value.object()) {
        for (const auto& [key, item] : *object) {
            forEachString(item, visit);
        }
    }
}

// The template syntax of step values and path templates alike.
const Regex& templatePattern() {
    static const Regex pattern(R"(\{\{\s*([^}]+?)\s*\}\})");
    return pattern;
}

class TemplateCheck {
public:
    TemplateCheck(const FlowDefinition& flow, WarningList& out) : out_(out) {
        for (std::size_t index = 0; index < flow.steps.size(); ++index) {
            indexByID_.emplace(flow.steps[index].id, index);
            ids_.push_back(flow.steps[index].id);
        }
    }

    // Every "{{ steps.<id>... }}" in the step's inputs, config and action must name a step
    // that has run by the time this one runs.
    void check(const FlowStep& step, std::size_t index) const {
        for (const auto* map : {&step.inputs, &step.config, &step.action}) {
            if (!*map) {
                continue;
            }
            for (const auto& [key, value] : **map) {
                forEachString(value,
                              [&](const std::string& text) { checkText(step, index, text); });
            }
        }
    }

private:
    void checkText(const FlowStep& step, std::size_t index, const std::string& text) const {
        for (const auto& match : templatePattern().allMatches(text)) {
            const auto& whole = match[0];
            const auto& inner = match[1];
            const auto path =
                pieces(std::string_view(text).substr(inner.begin, inner.end - inner.begin), '.');
            if (path.size() >= 2 && path[0] == "steps") {
                checkReference(step, index, text.substr(whole.begin, whole.end - whole.begin),
                               path[1]);
            }
        }
    }

    void checkReference(const FlowStep& step, std::size_t index, const std::string& written,
                        const std::string& named) const {
        const std::string prefix =
            stepPrefix(step) + "template " + inQuotes(written) + " names step " + inQuotes(named);
        const auto found = indexByID_.find(named);
        if (found == indexByID_.end()) {
            out_.add(step.id,
                     prefix + ", which is not in this flow" + didYouMean(closestWord(named, ids_)));
        } else if (found->second == index) {
            out_.add(step.id, prefix + ", its own step, whose outputs do not exist while it runs.");
        } else if (found->second > index) {
            out_.add(step.id, prefix + ", which runs later.");
        }
    }

    WarningList& out_;
    std::map<std::string, std::size_t> indexByID_; // the first step of each id
    std::vector<std::string> ids_;
};

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
