#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Error.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/stores/AuditLogStore.h"
#include "core/stores/AuditRunJson.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <optional>

namespace quorlin::cli {

namespace {

constexpr const char* usage =
    "usage: quorlin history [--flow <id>] [--status <word>] [--limit N] [--json | --csv]\n"
    "       quorlin history show <run-id> [--json]";

enum class Format { table, json, csv };

struct ListOptions {
    AuditRunQuery query;
    Format format = Format::table;
};

// A command line that doesn't fit; the text says what is wrong, the usage follows.
class UsageError : public Error {
public:
    explicit UsageError(const std::string& problem) : Error(problem) {}
};

ListOptions parseListOptions(const Arguments& arguments) {
    ListOptions options;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& word = arguments[index];
        const auto value = [&]() -> const std::string& {
            if (index + 1 >= arguments.size()) {
                throw UsageError(word + " needs a value");
            }
            return arguments[++index];
        };
        const auto setFormat = [&](Format format) {
            if (options.format != Format::table && options.format != format) {
                throw UsageError("--json and --csv can't be combined");
            }
            options.format = format;
        };
        if (word == "--flow") {
            options.query.flowID = value();
        } else if (word == "--status") {
            options.query.status = value();
        } else if (word == "--limit") {
            const std::string& text = value();
            std::size_t limit = 0;
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), limit);
            if (error != std::errc() || end != text.data() + text.size() || limit == 0) {
                throw UsageError("--limit needs a positive whole number, not '" + text + "'");
            }
            options.query.limit = limit;
        } else if (word == "--json") {
            setFormat(Format::json);
        } else if (word == "--csv") {
            setFormat(Format::csv);
        } else {
            throw UsageError("unexpected argument '" + word + "'");
        }
    }
    return options;
}

std::string oneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
    return text;
}

std::string seconds(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1fs", value);
    return text;
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t offset = 0; offset < text.size(); ++count) {
        decodeCodePoint(text, offset);
    }
    return count;
}

void printTable(const std::vector<AuditRun>& runs) {
    std::vector<std::vector<std::string>> rows{
        {"RUN", "TIME", "FLOW", "STATUS", "DURATION", "SUMMARY"}};
    for (const auto& run : runs) {
        rows.push_back({run.id.uppercaseString().substr(0, 8), oneLine(run.timestamp),
                        oneLine(run.flowID), oneLine(run.status), seconds(run.durationSeconds),
                        oneLine(run.outputSummary)});
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
    std::cout << "id,timestamp,flowID,flowName,trigger,status,durationSeconds,minutesSaved,"
                 "llmCostUSD,outputSummary,outputFolder\n";
    for (const auto& run : runs) {
        const std::vector<std::string> fields{run.id.uppercaseString(),
                                              run.timestamp,
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

void printRun(const AuditRun& run) {
    char cost[64];
    std::snprintf(cost, sizeof cost, "$%.2f", run.llmCostUSD);
    std::cout << "Run       " << run.id.uppercaseString() << '\n'
              << "Flow      " << run.flowName << " (" << run.flowID << ")\n"
              << "Time      " << run.timestamp << '\n'
              << "Trigger   " << run.trigger << '\n'
              << "Status    " << run.status << '\n'
              << "Duration  " << seconds(run.durationSeconds) << '\n'
              << "Saved     " << run.minutesSaved << " min\n"
              << "LLM cost  " << cost << '\n';
    if (run.outputFolder) {
        std::cout << "Output    " << *run.outputFolder << '\n';
    }
    std::cout << "Summary   " << run.outputSummary << '\n';
    std::cout << "\nStep timings" << (run.stepTimings.empty() ? ": none" : "") << '\n';
    for (std::size_t index = 0; index < run.stepTimings.size(); ++index) {
        const auto& timing = run.stepTimings[index];
        std::cout << "  " << index + 1 << ". " << timing.title << " (" << timing.stepID << ")  "
                  << seconds(timing.durationSeconds) << '\n';
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

int showCommand(const Arguments& arguments) {
    bool json = false;
    std::vector<std::string> ids;
    for (const auto& word : arguments) {
        if (word == "--json") {
            json = true;
        } else if (startsWith(word, "-")) {
            throw UsageError("unexpected argument '" + word + "'");
        } else {
            ids.push_back(word);
        }
    }
    if (ids.size() != 1 || ids[0].empty()) {
        throw UsageError("'history show' takes one run id");
    }
    const auto matches = AuditLogStore(AppSupportPaths::fromEnvironment()).runsWithIDPrefix(ids[0]);
    if (matches.empty()) {
        return fail("no run with id '" + ids[0] + "'. Run 'quorlin history' for the list.");
    }
    if (matches.size() > 1) {
        return fail("run id '" + ids[0] + "' matches " + std::to_string(matches.size()) +
                    " runs; give more of it.");
    }
    if (json) {
        std::cout << prettySortedJson(toJson(matches.front())) << '\n';
    } else {
        printRun(matches.front());
    }
    return 0;
}

} // namespace

// Lists the audit history newest first, or shows one run with its steps.
int historyCommand(const Arguments& arguments) {
    try {
        if (!arguments.empty() && arguments[0] == "show") {
            return showCommand(Arguments(arguments.begin() + 1, arguments.end()));
        }
        const ListOptions options = parseListOptions(arguments);
        const auto runs = AuditLogStore(AppSupportPaths::fromEnvironment()).runs(options.query);
        switch (options.format) {
        case Format::json: {
            nlohmann::json list = nlohmann::json::array();
            for (const auto& run : runs) {
                list.push_back(toJson(run));
            }
            std::cout << prettySortedJson(list) << '\n';
            break;
        }
        case Format::csv:
            printCsv(runs);
            break;
        case Format::table:
            if (runs.empty()) {
                std::cout << (options.query.flowID || options.query.status
                                  ? "No runs match.\n"
                                  : "No runs recorded yet.\n");
            } else {
                printTable(runs);
            }
            break;
        }
        return 0;
    } catch (const UsageError& error) {
        return fail(std::string(error.what()) + "\n" + usage);
    }
}

} // namespace quorlin::cli
