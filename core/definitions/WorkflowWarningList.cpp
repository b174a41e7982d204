#include "core/definitions/WorkflowWarningList.h"

namespace quorlin::warnings {

std::string inQuotes(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string stepPrefix(const FlowStep& step) {
    return "Step " + inQuotes(step.id) + ": ";
}

std::string listed(const std::vector<std::string>& names, std::string_view separator) {
    std::string text;
    for (const auto& name : names) {
        text += (text.empty() ? "" : std::string(separator)) + name;
    }
    return text;
}

std::string didYouMean(const std::optional<std::string>& suggestion) {
    return suggestion ? "; did you mean " + inQuotes(*suggestion) + "?" : ".";
}

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

} // namespace quorlin::warnings
