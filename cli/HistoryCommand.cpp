#include "cli/Commands.h"
#include "cli/HistoryOptions.h"
#include "cli/RunReport.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Error.h"
#include "core/foundation/Json.h"
#include "core/foundation/LocalTime.h"
#include "core/foundation/Text.h"
#include "core/state/RunPresentation.h"
#include "core/stores/AuditLogStore.h"
#include "core/stores/AuditRunJson.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>

namespace quorlin::cli {

namespace {

// The stored local minute as ISO 8601 with its offset, for exports; empty when the text
// isn't a local minute (an imported row may hold anything).
std::string isoTime(const std::string& timestamp) {
    const auto moment = parseLocalMinute(timestamp);
    return moment ? formatLocalIso8601(*moment) : "";
}

std::string oneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
    return text;
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t offset = 0; offset < text.size(); ++count) {
        decodeCodePoint(text, offset);
    }
    return count;
}

// At most length characters, the cut marked with an ellipsis.
std::string shortened(const std::string& text, std::size_t length) {
    if (characterCount(text) <= length) {
        return text;
    }
    std::size_t offset = 0;
    for (std::size_t count = 0; count + 1 < length; ++count) {
        decodeCodePoint(text, offset);
    }
    return text.substr(0, offset) + "…";
}

void printTable(const std::vector<AuditRun>& runs) {
    std::vector<std::vector<std::string>> rows{
        {"RUN", "TIME", "FLOW", "STATUS", "DURATION", "SUMMARY"}};
    for (const auto& run : runs) {
        rows.push_back({run.id.uppercaseString().substr(0, 8), oneLine(run.timestamp),
                        oneLine(run.flowID), oneLine(run.status),
                        formattedDuration(run.durationSeconds),
                        shortened(oneLineSummary(run.outputSummary), tableSummaryLength)});
    }
    std::vector<std::size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], characterCount(row[column]));
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const std::string padding(widths[column] - characterCount(row[column]), ' ');
            const bool last = column + 1 == row.size();
            // Durations line up on the right, everything else on the left.
            line += column == 4 ? padding + row[column] : row[column] + (last ? "" : padding);
            line += last ? "" : "  ";
        }
        std::cout << line << '\n';
    }
}

// RFC 4180: a field with a comma, a quote or a line break is quoted, quotes doubled.
std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

void printCsv(const std::vector<AuditRun>& runs) {
    std::cout << "id,timestamp,localTime,flowID,flowName,trigger,status,durationSeconds,"
                 "minutesSaved,llmCostUSD,outputSummary,outputFolder\n";
    for (const auto& run : runs) {
        const std::vector<std::string> fields{run.id.uppercaseString(),
                                              run.timestamp,
                                              isoTime(run.timestamp),
                                              run.flowID,
                                              run.flowName,
                                              run.trigger,
                                              run.status,
                                              nlohmann::json(run.durationSeconds).dump(),
                                              std::to_string(run.minutesSaved),
                                              nlohmann::json(run.llmCostUSD).dump(),
                                              run.outputSummary,
                                              run.outputFolder.value_or("")};
        std::string line;
        for (const auto& field : fields) {
            line += (line.empty() ? "" : ",") + csvField(field);
        }
        std::cout << line << '\n';
    }
}

// A JSON payload pretty-printed and indented; text that isn't JSON is shown as it is.
void printPayload(const char* label, const std::optional<std::string>& payload) {
    if (!payload) {
        return;
    }
    const auto json = parseJsonOrDiscarded(*payload);
    std::string text = json.is_discarded() ? *payload : prettySortedJson(json);
    std::cout << "     " << label << ":\n";
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto end = std::min(text.find('\n', start), text.size());
        std::cout << "       " << std::string_view(text).substr(start, end - start) << '\n';
        start = end + 1;
    }
}

// The message of a step's error record; the whole record when it has none.
std::string errorText(const std::string& errorJSON) {
    const auto json = parseJsonOrDiscarded(errorJSON);
    if (json.is_object() && json.contains("message") && json["message"].is_string()) {
        return json["message"].get<std::string>();
    }
    return errorJSON;
}

void printRun(const AuditRun& run) {
    char cost[64];
    std::snprintf(cost, sizeof cost, "$%.2f", run.llmCostUSD);
    std::cout << "Run       " << run.id.uppercaseString() << '\n'
              << "Flow      " << run.flowName << " (" << run.flowID << ")\n"
              << "Time      " << run.timestamp << '\n'
              << "Trigger   " << run.trigger << '\n'
              << "Status    " << run.status << '\n'
              << "Duration  " << formattedDuration(run.durationSeconds) << '\n'
              << "Saved     " << run.minutesSaved << " min\n"
              << "LLM cost  " << cost << '\n';
    if (run.outputFolder) {
        std::cout << "Output    " << *run.outputFolder << '\n';
    }
    std::cout << "Summary   " << run.outputSummary << '\n';
    for (const auto& record : run.stepRecords) {
        if (record.errorJSON) {
            std::cout << "Failed at " << record.title << " (" << record.stepID << ")\n"
                      << "Error     " << errorText(*record.errorJSON) << '\n';
        }
    }
    std::cout << "\nStep timings" << (run.stepTimings.empty() ? ": none" : "") << '\n';
    for (std::size_t index = 0; index < run.stepTimings.size(); ++index) {
        const auto& timing = run.stepTimings[index];
        std::cout << "  " << index + 1 << ". " << timing.title << " (" << timing.stepID << ")  "
                  << formattedDuration(timing.durationSeconds) << '\n';
    }
    std::cout << "\nStep records" << (run.stepRecords.empty() ? ": none" : "") << '\n';
    for (std::size_t index = 0; index < run.stepRecords.size(); ++index) {
        const auto& record = run.stepRecords[index];
        std::cout << "  " << index + 1 << ". " << record.title << " (" << record.stepID << ")\n";
        printPayload("input", record.inputJSON);
        printPayload("output", record.outputJSON);
        printPayload("error", record.errorJSON);
    }
}

nlohmann::json runJson(const AuditRun& run) {
    auto json = toJson(run);
    json["localTime"] = isoTime(run.timestamp);
    return json;
}

nlohmann::json totalsJson(const AuditTotals& totals) {
    return {{"runs", totals.runs},
            {"minutesSaved", totals.minutesSaved},
            {"llmCostUSD", totals.llmCostUSD}};
}

std::string totalsLine(const std::string& label, const AuditTotals& totals, std::size_t width) {
    char line[256];
    std::snprintf(line, sizeof line, "%-*s  %7lld  %9lld  %10.2f", static_cast<int>(width),
                  label.c_str(), static_cast<long long>(totals.runs),
                  static_cast<long long>(totals.minutesSaved), totals.llmCostUSD);
    return line;
}

void printTotals(const AuditLogStore& store, const ListOptions& options) {
    const auto all = store.totals(options.query);
    const auto byFlow = store.totalsByFlow(options.query);
    const auto byMonth = store.totalsByMonth(options.query);
    if (options.format == Format::json) {
        nlohmann::json json{{"total", totalsJson(all)},
                            {"byFlow", nlohmann::json::object()},
                            {"byMonth", nlohmann::json::object()}};
        for (const auto& group : byFlow) {
            json["byFlow"][group.key] = totalsJson(group.totals);
        }
        for (const auto& group : byMonth) {
            json["byMonth"][group.key] = totalsJson(group.totals);
        }
        std::cout << prettySortedJson(json) << '\n';
        return;
    }
    if (options.format == Format::csv) {
        std::cout << "group,key,runs,minutesSaved,llmCostUSD\n";
        const auto row = [](const char* group, const std::string& key, const AuditTotals& totals) {
            std::cout << group << ',' << csvField(key) << ',' << totals.runs << ','
                      << totals.minutesSaved << ',' << nlohmann::json(totals.llmCostUSD).dump()
                      << '\n';
        };
        row("total", "", all);
        for (const auto& group : byFlow) {
            row("flow", group.key, group.totals);
        }
        for (const auto& group : byMonth) {
            row("month", group.key, group.totals);
        }
        return;
    }
    std::size_t width = 7;
    for (const auto& group : byFlow) {
        width = std::max(width, characterCount(group.key));
    }
    std::cout << std::string(width, ' ') << "     RUNS  MIN SAVED  LLM COST $\n"
              << totalsLine("All", all, width) << '\n';
    if (!byFlow.empty()) {
        std::cout << "\nBy flow\n";
        for (const auto& group : byFlow) {
            std::cout << totalsLine(group.key, group.totals, width) << '\n';
        }
    }
    if (!byMonth.empty()) {
        std::cout << "\nBy month\n";
        for (const auto& group : byMonth) {
            std::cout << totalsLine(group.key, group.totals, width) << '\n';
        }
    }
}

void printRuns(const AuditLogStore& store, const ListOptions& options) {
    const auto runs = store.runs(options.query);
    switch (options.format) {
    case Format::json: {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& run : runs) {
            list.push_back(runJson(run));
        }
        std::cout << prettySortedJson(list) << '\n';
        return;
    }
    case Format::csv:
        printCsv(runs);
        return;
    case Format::table:
        break;
    }
    if (runs.empty()) {
        std::cout << (filtered(options.query) || options.query.offset ? "No runs match.\n"
                                                                      : "No runs recorded yet.\n");
        return;
    }
    printTable(runs);
    // Say so when the default limit hid older runs; a chosen limit needs no reminder.
    if (!options.limited && runs.size() == defaultTableLimit) {
        const auto total = store.totals(options.query).runs;
        const auto shown = static_cast<std::int64_t>(options.query.offset + runs.size());
        if (total > shown) {
            std::cerr << "Showing " << runs.size() << " of " << total
                      << " runs; use --limit and --offset for more.\n";
        }
    }
}

} // namespace

int historyCommand(const ParsedArguments& arguments) {
    const ListOptions options = listOptions(arguments);
    const AuditLogStore store(AppSupportPaths::fromEnvironment());
    if (options.totals) {
        printTotals(store, options);
    } else {
        printRuns(store, options);
    }
    return exitStatus::success;
}

// One run with its steps, found by the first characters of its id.
int historyShowCommand(const ParsedArguments& arguments) {
    const auto& prefix = arguments.operands[0];
    if (prefix.empty()) {
        throw UsageError("'history show' needs a run id", "history show");
    }
    const auto matches = AuditLogStore(AppSupportPaths::fromEnvironment()).runsWithIDPrefix(prefix);
    if (matches.empty()) {
        return fail("no run with id '" + prefix + "'. Run 'quorlin history' for the list.");
    }
    if (matches.size() > 1) {
        return fail("run id '" + prefix + "' matches " + std::to_string(matches.size()) +
                    " runs; give more of it.");
    }
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(runJson(matches.front())) << '\n';
    } else {
        printRun(matches.front());
    }
    return exitStatus::success;
}

} // namespace quorlin::cli
