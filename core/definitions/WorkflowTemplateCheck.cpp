#include "core/definitions/WorkflowTemplateCheck.h"

#include "core/foundation/ClosestWord.h"
#include "core/foundation/Regex.h"

#include <functional>

namespace quorlin::warnings {

namespace {

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

} // namespace

void TemplateCheck::check(const FlowStep& step, std::size_t index) const {
    for (const auto* map : {&step.inputs, &step.config, &step.action}) {
        if (!*map) {
            continue;
        }
        for (const auto& [key, value] : **map) {
            forEachString(value, [&](const std::string& text) { checkText(step, index, text); });
        }
    }
}

void TemplateCheck::checkText(const FlowStep& step, std::size_t index,
                              const std::string& text) const {
    for (const auto& match : templatePattern().allMatches(text)) {
        const auto& whole = match[0];
        const auto& inner = match[1];
        const auto path =
            pieces(std::string_view(text).substr(inner.begin, inner.end - inner.begin), '.');
        if (path.size() >= 2 && path[0] == "steps") {
            checkReference(step, index, text.substr(whole.begin, whole.end - whole.begin), path[1]);
        }
    }
}

void TemplateCheck::checkReference(const FlowStep& step, std::size_t index,
                                   const std::string& written, const std::string& named) const {
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

} // namespace quorlin::warnings
