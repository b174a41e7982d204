#pragma once

#include "cli/CommandLine.h"
#include "core/stores/AuditRunQuery.h"

#include <cstddef>

namespace quorlin::cli {

enum class Format { table, json, csv };

// Without --limit the table shows a screenful; JSON and CSV, being exports, show all.
inline constexpr std::size_t defaultTableLimit = 50;
inline constexpr std::size_t tableSummaryLength = 60;

struct ListOptions {
    AuditRunQuery query;
    Format format = Format::table;
    bool totals = false;
    bool limited = false; // by --limit, not by the default
};

// The query and format a history command line asks for. Throws UsageError for a count, a
// date or a combination that doesn't make sense.
ListOptions listOptions(const ParsedArguments& arguments);

// Whether the query narrows the history at all.
bool filtered(const AuditRunQuery& query);

} // namespace quorlin::cli
