#pragma once

// Shared by the files that make a workflow's warnings; not for use elsewhere.

#include "core/definitions/WorkflowBlockValidator.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowWarnings.h"
#include "core/foundation/YamlNode.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin::warnings {

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

std::string inQuotes(std::string_view text);
// "Step 'id': "
std::string stepPrefix(const FlowStep& step);
// "a, b, c", or "a or b" with " or " as separator.
std::string listed(const std::vector<std::string>& names, std::string_view separator = ", ");
// "; did you mean 'x'?", or "." without a suggestion.
std::string didYouMean(const std::optional<std::string>& suggestion);
// Pieces between separators, empty ones dropped, as template paths are read at run time:
// "steps..a" has the pieces of "steps.a".
std::vector<std::string> pieces(std::string_view text, char separator);

} // namespace quorlin::warnings
