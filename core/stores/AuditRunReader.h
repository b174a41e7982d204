#pragma once

#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditRun.h"

#include <string_view>
#include <vector>

namespace quorlin {

// The start of every statement that selects runs for the readers below: the columns of
// audit_runs in the order they read them.
inline constexpr std::string_view selectAuditRuns =
    "SELECT id, flow_id, flow_name, timestamp, trigger, status, output_summary, "
    "minutes_saved, llm_cost_usd, duration_seconds, output_folder FROM audit_runs ";

// Every run the statement gives, in its order, each with its step rows looked up by its
// id: what a page of a long history costs is the page alone.
std::vector<AuditRun> readAuditRuns(AuditDatabase& database, AuditStatement& runs);

// Every run in history order with its step rows, as readAuditRuns would give them, but
// with each step table read front to back once instead of run by run.
std::vector<AuditRun> readAuditHistory(AuditDatabase& database);

} // namespace quorlin
