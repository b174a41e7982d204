#include "cli/RunReport.h"

#include "core/execution/GenericScriptOutputSummarizer.h"
#include "core/state/RunPresentation.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>

namespace quorlin::cli {

namespace {

constexpr std::size_t shortValueLength = 72;

// A value on one short line: text as it is, a list of plain values joined, anything else
// as compact JSON cut at the line's length.
std::string shortValue(const nlohmann::json& value) {
    std::string text;
    if (value.is_string()) {
        text = value.get<std::string>();
    } else if (value.is_array() && std::all_of(value.begin(), value.end(), [](const auto& item) {
                   return item.is_primitive();
               })) {
        for (const auto& item : value) {
            text += (text.empty() ? "" : ", ") +
                    (item.is_string() ? item.get<std::string>() : item.dump());
        }
        if (value.empty()) {
            text = "(none)";
        }
    } else {
        text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    for (char& c : text) {
        c = c == '\n' || c == '\r' || c == '\t' ? ' ' : c;
    }
    if (text.size() > shortValueLength) {
        std::size_t cut = shortValueLength;
        while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0U) == 0x80U) {
            --cut; // not in the middle of a UTF-8 sequence
        }
        text = text.substr(0, cut) + "…";
    }
    return text;
}

const char* statusWord(RunReport::Outcome outcome) {
    switch (outcome) {
    case RunReport::Outcome::succeeded:
        return "succeeded";
    case RunReport::Outcome::failed:
        return "failed";
    case RunReport::Outcome::rejected:
        return "rejected";
    case RunReport::Outcome::awaitingApproval:
        return "awaiting-approval";
    case RunReport::Outcome::cancelled:
        return "cancelled";
    }
    return "failed";
}

} // namespace

namespace {

// Session titles carry the step's number ("2. Check the totals"); a name needs none.
std::string unnumbered(const std::string& title) {
    const auto dot = title.find(". ");
    const bool numbered =
        dot != std::string::npos && dot > 0 && title.find_first_not_of("0123456789") == dot;
    return numbered ? title.substr(dot + 2) : title;
}

} // namespace

void findFailedStep(RunReport& report) {
    if (report.record) {
        for (const auto& step : report.record->stepRecords) {
            if (step.errorJSON) {
                report.failedStepID = step.stepID;
                report.failedStepTitle = unnumbered(step.title);
                return;
            }
        }
    }
    if (report.session) {
        for (const auto& step : report.session->liveSteps) {
            if (step.state.kind != LiveStepState::Kind::done) {
                report.failedStepID = step.id;
                report.failedStepTitle = unnumbered(step.title);
                return;
            }
        }
    }
}

std::vector<std::string> deliveredFiles(const AuditRun& record) {
    for (auto step = record.stepRecords.rbegin(); step != record.stepRecords.rend(); ++step) {
        if (!step->outputJSON) {
            continue;
        }
        const auto json = parseJsonOrDiscarded(*step->outputJSON);
        const auto files = json.is_object() ? json.find("final_files") : json.end();
        if (!json.is_object() || files == json.end() || !files->is_array()) {
            continue;
        }
        std::vector<std::string> paths;
        for (const auto& file : *files) {
            if (file.is_string()) {
                paths.push_back(file.get<std::string>());
            }
        }
        return paths;
    }
    return {};
}

namespace {

// The last line of a result of several lines, when it is a JSON object: the output of the
// run's last step, as a one-step run would have printed it alone.
std::optional<std::string> lastStepOutput(const std::string& result) {
    const auto end = result.find_last_not_of("\r\n");
    const auto start = end == std::string::npos ? std::string::npos : result.rfind('\n', end);
    if (start == std::string::npos) {
        return std::nullopt;
    }
    auto last = result.substr(start + 1, end - start);
    if (!parseJsonOrDiscarded(last).is_object()) {
        return std::nullopt;
    }
    return last;
}

} // namespace

std::string oneLineSummary(const std::string& summary) {
    std::string text = summary;
    if (const auto last = lastStepOutput(summary)) {
        text = GenericScriptOutputSummarizer::summary(*last);
        if (text == "Run complete") {
            return "";
        }
    }
    for (char& c : text) {
        c = c == '\n' || c == '\r' || c == '\t' ? ' ' : c;
    }
    return text;
}

std::string readableResult(const std::string& output) {
    std::string text;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const auto json = parseJsonOrDiscarded(line);
        if (!json.is_object()) {
            text += line + "\n";
            continue;
        }
        for (const auto& [key, value] : json.items()) {
            text += key + ": " + shortValue(value) + "\n";
        }
    }
    return text;
}

nlohmann::json reportJson(const RunReport& report) {
    const auto optional = [](const std::optional<std::string>& value) {
        return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
    };
    nlohmann::json json{{"status", statusWord(report.outcome)},
                        {"flowID", report.flowID},
                        {"error", optional(report.error)},
                        {"failedStep", nullptr}};
    if (report.failedStepID) {
        json["failedStep"] = {{"id", *report.failedStepID},
                              {"title", report.failedStepTitle.value_or("")}};
    }
    if (report.outcome == RunReport::Outcome::awaitingApproval) {
        json["proposalsWaiting"] = report.proposalsWaiting;
    }
    const auto& record = report.record;
    json["runID"] = record ? nlohmann::json(record->id.uppercaseString()) : nullptr;
    json["flowName"] = record ? record->flowName : report.session ? report.session->flowName : "";
    json["summary"] = record ? nlohmann::json(record->outputSummary) : nullptr;
    json["output"] = report.session ? nlohmann::json(report.session->resultOutput) : nullptr;
    json["outputFolder"] = record ? optional(record->outputFolder) : nullptr;
    json["files"] = record ? deliveredFiles(*record) : std::vector<std::string>{};
    json["durationSeconds"] = record ? nlohmann::json(record->durationSeconds) : nullptr;
    json["llmCostUSD"] = record ? nlohmann::json(record->llmCostUSD) : nullptr;
    return json;
}

std::string reportText(const RunReport& report, bool terminal) {
    const auto& record = report.record;
    const auto& session = report.session;
    std::string text;
    const std::string duration = record ? " in " + formattedDuration(record->durationSeconds) : "";
    const std::string summary = record ? oneLineSummary(record->outputSummary) : "";
    text += report.outcome == RunReport::Outcome::rejected ? "Rejected" : "Succeeded";
    text += duration + (summary.empty() ? "" : ": " + summary) + "\n";
    if (session && !session->resultOutput.empty()) {
        // What the earlier steps handed on stays in the run's record (history show).
        const auto output = lastStepOutput(session->resultOutput).value_or(session->resultOutput);
        const auto result = terminal ? readableResult(output) : output + "\n";
        // A plain-text result is usually the summary itself; it isn't said twice.
        if (result != summary + "\n") {
            text += "\n" + result + "\n";
        }
    }
    if (record && record->outputFolder) {
        text += "Output folder: " + *record->outputFolder + "\n";
    }
    if (record) {
        const auto files = deliveredFiles(*record);
        if (!files.empty()) {
            text += "Files:\n";
            for (const auto& file : files) {
                text += "  " + file + "\n";
            }
        }
        const auto id = record->id.uppercaseString().substr(0, 8);
        text += "Recorded as run " + id + " (quorlin history show " + id + ").\n";
    }
    return text;
}

} // namespace quorlin::cli
