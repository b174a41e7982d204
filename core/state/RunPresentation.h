#pragma once

#include "core/stores/AuditRun.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// A run as a flow's page lists it: the history's fields with the cost and the duration
// already in words.
struct RunRecord {
    Uuid id;
    std::string timestamp;
    std::string status;
    std::string trigger;
    std::string outputSummary;
    std::int64_t minutesSaved = 0;
    std::string llmCost;  // "$0.01"
    std::string duration; // "41.5s"
    std::optional<std::string> outputFolder;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    friend bool operator==(const RunRecord&, const RunRecord&) = default;
};

// A run as the audit log view lists it, with its flow's symbol.
struct AuditEntry {
    Uuid id;
    std::string symbol;
    std::string flowName;
    std::string timestamp;
    std::string trigger;
    std::string status;
    std::string output;
    std::int64_t minutesSaved = 0;
    std::string llmCost;
    std::string duration;
    std::optional<std::string> outputFolder;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    friend bool operator==(const AuditEntry&, const AuditEntry&) = default;
};

// What a flow's card and page say about its runs.
struct FlowRunStats {
    std::vector<RunRecord> recentRuns; // the five newest, newest first
    std::int64_t totalRuns = 0;
    std::int64_t totalMinutesSaved = 0;
    std::string totalCost = "$0.00";
    int successRate = 0; // whole percent of runs whose status is exactly "Success", rounded down
    friend bool operator==(const FlowRunStats&, const FlowRunStats&) = default;
};

// "$%.2f" and "%.1fs".
std::string formattedCost(double usd);
std::string formattedDuration(double seconds);

// The icon name a flow is shown with; a generic one for flows without their own.
std::string symbolForFlow(std::string_view flowID);

RunRecord makeRunRecord(const AuditRun& run);
AuditEntry makeAuditEntry(const AuditRun& run);

// The stats of one flow's runs among runs (any order, any flows). Newest is by timestamp
// compared as text, ties kept in the order given.
FlowRunStats runStats(std::string_view flowID, const std::vector<AuditRun>& runs);

// The totals the home page shows over the entries. The cost adds up the amounts as they
// are shown, to the cent, so the total always agrees with the rows a person sees.
std::int64_t totalMinutesSaved(const std::vector<AuditEntry>& entries);
std::string totalCost(const std::vector<AuditEntry>& entries);

} // namespace quorlin
