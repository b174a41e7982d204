#include "RunResults.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Json.h"

#include <sstream>

namespace quorlin {

namespace {

std::vector<std::string> nonEmptyLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

} // namespace

std::int64_t minutesSavedPerRun(const FlowDefinition& workflow) {
    if (!workflow.roi) {
        return 0;
    }
    return workflow.roi->replacesManualMinutesPerRun.value_or(0);
}

std::vector<std::string> finalFiles(const GenericScriptWorkflowRunResult& result) {
    const auto lines = nonEmptyLines(result.stdoutText);
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        const auto json = parseJsonOrDiscarded(*line);
        if (!json.is_object() || !json.contains("final_files")) {
            continue;
        }
        const auto& files = json.at("final_files");
        std::vector<std::string> paths;
        if (files.is_array()) {
            for (const auto& file : files) {
                if (!file.is_string()) {
                    paths.clear();
                    break;
                }
                paths.push_back(file.get<std::string>());
            }
            if (paths.size() == files.size()) {
                return paths;
            }
        }
        // The last line that names its files decides; earlier lines are not consulted.
        throw DecodingError(DecodingError::Kind::typeMismatch, "final_files", "an array of strings",
                            compactJson(files));
    }
    return {};
}

} // namespace quorlin
