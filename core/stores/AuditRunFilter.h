#pragma once

#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditRunQuery.h"

#include <string>
#include <vector>

namespace quorlin {

// The WHERE clause of a history query over audit_runs. Only the filters the query sets are
// written in, so SQLite can pick the index that serves them (flow id, timestamp). limit and
// offset are the caller's business.
class AuditRunFilter {
public:
    explicit AuditRunFilter(const AuditRunQuery& query);

    // "" when the query filters nothing, else "WHERE ... " with parameters ?1, ?2, ...
    const std::string& sql() const { return sql_; }
    bool empty() const { return values_.empty(); }

    // Binds the clause's parameters; returns the number of the first one after them.
    int bind(AuditStatement& statement) const;

private:
    std::string parameter(std::string value);
    void where(const std::string& condition);

    std::string sql_;
    std::vector<std::string> values_;
};

} // namespace quorlin
