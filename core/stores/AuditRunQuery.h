#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace quorlin {

// Which runs a history view lists; a filter left empty matches every run.
struct AuditRunQuery {
    std::optional<std::string> flowID;
    std::optional<std::string> status; // matched without regard to ASCII letter case
    std::optional<std::size_t> limit;  // at most this many runs
};

// Sums over the whole history.
struct AuditTotals {
    std::int64_t runs = 0;
    std::int64_t minutesSaved = 0;
    double llmCostUSD = 0;
    friend bool operator==(const AuditTotals&, const AuditTotals&) = default;
};

} // namespace quorlin
