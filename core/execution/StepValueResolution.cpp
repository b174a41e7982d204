#include "StepValueResolution.h"

#include "core/definitions/WorkflowLoader.h"
#include "core/foundation/Regex.h"
#include "core/foundation/Text.h"

#include <ctime>
#include <vector>

namespace quorlin {

namespace {

[[noreturn]] void fail(const std::string& message) {
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message, message);
}

// Splits at every separator, dropping empty pieces: "steps..a" has the pieces of "steps.a".
std::vector<std::string> pieces(std::string_view text, char separator) {
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        if (end > start) {
            result.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return result;
}

std::string braced(const std::string& expression) {
    return "{{" + expression + "}}";
}

void replaceAll(std::string& text, std::string_view token, const std::string& replacement) {
    for (std::size_t at = text.find(token); at != std::string::npos;
         at = text.find(token, at + replacement.size())) {
        text.replace(at, token.size(), replacement);
    }
}

// The reference date, or one calendar month before it (the day clamped to the month).
std::tm monthOf(SystemTime referenceDate, bool previous) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(referenceDate);
    std::tm local{};
    localtime_r(&seconds, &local);
    if (previous) {
        local.tm_mon -= 1;
        if (local.tm_mon < 0) {
            local.tm_mon = 11;
            local.tm_year -= 1;
        }
    }
    return local;
}

std::string monthForm(const std::string& month, const std::string& path,
                      const WorkflowValue& profile, SystemTime referenceDate) {
    const std::tm date = monthOf(referenceDate, month == "prev_month");
    char year[16];
    char monthNumber[8];
    std::strftime(year, sizeof year, "%Y", &date);
    std::strftime(monthNumber, sizeof monthNumber, "%m", &date);
    std::string text = profileValue(path, profile);
    replaceAll(text, "{{YYYY}}", year);
    replaceAll(text, "{{MM}}", monthNumber);
    return text;
}

} // namespace

WorkflowValue resolvedInputValue(const WorkflowValue& value, const StepOutputs& stepOutputs) {
    if (const auto* text = value.string()) {
        return resolvedTemplateString(*text, stepOutputs);
    }
    if (const auto* array = value.array()) {
        WorkflowValue::Array resolved;
        resolved.reserve(array->size());
        for (const auto& element : *array) {
            resolved.push_back(resolvedInputValue(element, stepOutputs));
        }
        return resolved;
    }
    if (const auto* object = value.object()) {
        WorkflowValue::Object resolved;
        for (const auto& [key, element] : *object) {
            resolved.emplace(key, resolvedInputValue(element, stepOutputs));
        }
        return resolved;
    }
    return value;
}

WorkflowValueMap resolvedInputs(const std::optional<WorkflowValueMap>& inputs,
                                const StepOutputs& stepOutputs) {
    WorkflowValueMap resolved;
    for (const auto& [key, value] : inputs.value_or(WorkflowValueMap{})) {
        resolved.emplace(key, resolvedInputValue(value, stepOutputs));
    }
    return resolved;
}

WorkflowValue resolvedTemplateString(const std::string& text, const StepOutputs& stepOutputs) {
    const std::string trimmedText = trimmed(text);
    if (!startsWith(trimmedText, "{{") || !endsWith(trimmedText, "}}") || trimmedText.size() < 4) {
        return text;
    }
    const std::string expression = trimmed(trimmedText.substr(2, trimmedText.size() - 4));
    const auto parts = pieces(expression, '.');
    if (parts.size() < 3 || parts[0] != "steps" || parts[2] != "outputs") {
        return text; // not a step reference: left for whoever reads the value
    }
    const auto step = stepOutputs.find(parts[1]);
    if (step == stepOutputs.end()) {
        fail("Missing outputs for step " + parts[1]);
    }
    if (parts.size() == 3) {
        return WorkflowValue::Object(step->second.begin(), step->second.end());
    }
    // Paths do not reach into a value: five pieces or more is a missing output too.
    const auto output = parts.size() == 4 ? step->second.find(parts[3]) : step->second.end();
    if (output == step->second.end()) {
        fail("Missing output " + expression);
    }
    return output->second;
}

std::string renderTemplate(std::string_view templateText, const StepOutputs& stepOutputs,
                           const WorkflowValue& profile, SystemTime referenceDate) {
    static const Regex token(R"(\{\{\s*([^}]+?)\s*\}\})");
    std::string rendered(templateText);
    const auto matches = token.allMatches(templateText);
    // From the last match to the first, so earlier positions stay valid.
    for (auto match = matches.rbegin(); match != matches.rend(); ++match) {
        const auto& whole = (*match)[0];
        const auto& inner = (*match)[1];
        const std::string expression =
            trimmed(templateText.substr(inner.begin, inner.end - inner.begin));
        rendered.replace(whole.begin, whole.end - whole.begin,
                         renderTemplateExpression(expression, stepOutputs, profile, referenceDate));
    }
    return rendered;
}

std::string renderTemplateExpression(const std::string& expression, const StepOutputs& stepOutputs,
                                     const WorkflowValue& profile, SystemTime referenceDate) {
    if (const auto bar = expression.find('|'); bar != std::string::npos) {
        std::vector<std::string> sides;
        for (const auto& side : {expression.substr(0, bar), expression.substr(bar + 1)}) {
            if (!side.empty()) {
                sides.push_back(trimmed(side));
            }
        }
        if (sides.size() == 2 && (sides[0] == "current_month" || sides[0] == "prev_month")) {
            return monthForm(sides[0], sides[1], profile, referenceDate);
        }
        return braced(expression);
    }
    if (startsWith(expression, "profile.")) {
        return profileValue(expression, profile);
    }
    if (startsWith(expression, "steps.")) {
        return stepOutputValue(expression, stepOutputs);
    }
    return braced(expression); // an unknown token such as {{YYYY}} waits for a later stage
}

std::string profileValue(const std::string& path, const WorkflowValue& profile) {
    std::string keyPath = trimmed(path);
    if (startsWith(keyPath, "profile.")) {
        keyPath.erase(0, std::string_view("profile.").size());
    }
    const WorkflowValue* current = &profile;
    for (const auto& key : pieces(keyPath, '.')) {
        const auto* object = current->object();
        const auto found = object ? object->find(key) : WorkflowValue::Object::const_iterator{};
        if (object == nullptr || found == object->end()) {
            fail("Unknown profile template value: " + path);
        }
        current = &found->second;
    }
    if (!current->isString()) {
        fail("Profile template value is not a string: " + path);
    }
    return *current->string();
}

std::string stepOutputValue(const std::string& expression, const StepOutputs& stepOutputs) {
    const auto parts = pieces(expression, '.');
    if (parts.size() != 4 || parts[0] != "steps" || parts[2] != "outputs") {
        return braced(expression);
    }
    const auto step = stepOutputs.find(parts[1]);
    if (step != stepOutputs.end()) {
        if (const auto output = step->second.find(parts[3]); output != step->second.end()) {
            if (!output->second.isString()) {
                fail("Step output is not a string: " + expression);
            }
            return *output->second.string();
        }
    }
    fail("Missing output " + expression);
}

} // namespace quorlin
