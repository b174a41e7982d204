#pragma once

#include <optional>
#include <string>

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

} // namespace quorlin
