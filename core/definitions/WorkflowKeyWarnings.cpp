#include "core/definitions/WorkflowKeyWarnings.h"

#include "core/definitions/BlockDefinition.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Text.h"

namespace quorlin::warnings {

namespace {

// The decoder's coding path of the step list; its items are "flow.steps[<index>]".
const std::string stepsPath = "flow.steps";

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

} // namespace

std::vector<UnknownRecordKey> unknownWorkflowKeys(const YamlNode& raw) {
    return unknownRecordKeys(raw, [](const YamlNode& root) { decodeWorkflowDocument(root); });
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

} // namespace quorlin::warnings
