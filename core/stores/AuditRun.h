#pragma once

#include "core/foundation/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// How long one step of a run took.
struct AuditStepTiming {
    std::string stepID;
    std::string title;
    double durationSeconds = 0;
    friend bool operator==(const AuditStepTiming&, const AuditStepTiming&) = default;
};

// What one step of a run received, produced or failed with, as JSON text prepared by
// the caller; the store never looks inside.
struct AuditStepRecord {
    std::string stepID;
    std::string title;
    std::optional<std::string> inputJSON;
    std::optional<std::string> outputJSON;
    std::optional<std::string> errorJSON;
    friend bool operator==(const AuditStepRecord&, const AuditStepRecord&) = default;
};

// One finished (or failed) run as the history keeps it. timestamp, trigger and status
// are the caller's words; the store keeps them as opaque text.
struct AuditRun {
    Uuid id;
    std::string flowID;
    std::string flowName;
    std::string timestamp;
    std::string trigger;
    std::string status;
    std::string outputSummary;
    std::int64_t minutesSaved = 0;
    double llmCostUSD = 0;
    double durationSeconds = 0;
    std::vector<AuditStepTiming> stepTimings; // in step order
    std::vector<AuditStepRecord> stepRecords; // in step order
    std::optional<std::string> outputFolder;
    friend bool operator==(const AuditRun&, const AuditRun&) = default;
};

// The whole history, oldest run first.
struct AuditLogDocument {
    std::vector<AuditRun> runs;
    friend bool operator==(const AuditLogDocument&, const AuditLogDocument&) = default;
};

} // namespace quorlin
