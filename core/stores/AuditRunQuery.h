#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace quorlin {

// Which runs a history view lists; a filter left empty matches every run, and the filters
// that are set must all match.
//
// since and until are compared with the run's timestamp, the local "yyyy-MM-dd HH:mm" every
// writer stores; a run's time is the start of that minute. So a run at "09:30" is within
// since 09:30:00 but not since 09:30:01, and within until 09:30:01 but not until 09:30:00.
// In the hour a clock repeats when summer time ends, the stored minute can't tell which
// of the two it was, and the bound goes by the wall clock.
struct AuditRunQuery {
    std::optional<std::string> flowID;
    std::optional<std::string> status; // matched without regard to ASCII letter case
    std::optional<std::size_t> limit;  // at most this many runs
    std::optional<std::chrono::system_clock::time_point> since; // at or after
    std::optional<std::chrono::system_clock::time_point> until; // before
    // Found, ASCII letter case aside, in the output summary, the flow name, the flow id or
    // the error JSON of any of the run's step records.
    std::optional<std::string> text;
    std::size_t offset = 0; // the newest matches skipped, for paging with limit
};

// Counts and sums over a set of runs.
struct AuditTotals {
    std::int64_t runs = 0;
    std::int64_t minutesSaved = 0;
    double llmCostUSD = 0;
    friend bool operator==(const AuditTotals&, const AuditTotals&) = default;
};

// The totals of the runs that share a key: a flow id, or a month "yyyy-MM".
struct AuditGroupTotals {
    std::string key;
    AuditTotals totals;
    friend bool operator==(const AuditGroupTotals&, const AuditGroupTotals&) = default;
};

} // namespace quorlin
