#include "core/stores/AuditRunFilter.h"

#include "core/foundation/LocalTime.h"

namespace quorlin {

namespace {

// Timestamps are local "yyyy-MM-dd HH:mm", which sorts as text in time order, so a bound
// becomes the same text and the comparison can use the timestamp index. A run's time is
// the start of its minute, so it is at or after a moment exactly when its minute is at or
// after the moment rounded up to a whole minute; "before" works the same way.
std::string minuteBound(std::chrono::system_clock::time_point time) {
    return formatLocalMinute(std::chrono::ceil<std::chrono::minutes>(time));
}

// A LIKE pattern for text anywhere in a value. SQLite's LIKE folds ASCII letters only,
// which is the matching asked for; its own wildcards in the text are escaped.
std::string containsPattern(const std::string& text) {
    std::string pattern = "%";
    for (const char character : text) {
        if (character == '%' || character == '_' || character == '\\') {
            pattern += '\\';
        }
        pattern += character;
    }
    return pattern + "%";
}

} // namespace

AuditRunFilter::AuditRunFilter(const AuditRunQuery& query) {
    if (query.flowID) {
        where("flow_id = " + parameter(*query.flowID));
    }
    if (query.status) {
        where("lower(status) = lower(" + parameter(*query.status) + ")"); // lower(): ASCII only
    }
    if (query.since) {
        where("timestamp >= " + parameter(minuteBound(*query.since)));
    }
    if (query.until) {
        where("timestamp < " + parameter(minuteBound(*query.until)));
    }
    if (query.text) {
        const std::string like =
            " LIKE " + parameter(containsPattern(*query.text)) + " ESCAPE '\\'";
        // The step records come last, looked up through their (run_id, position) index.
        where("(output_summary" + like + " OR flow_name" + like + " OR flow_id" + like +
              " OR EXISTS (SELECT 1 FROM audit_step_records"
              " WHERE run_id = audit_runs.id AND error_json" +
              like + "))");
    }
}

int AuditRunFilter::bind(AuditStatement& statement) const {
    int index = 1;
    for (const auto& value : values_) {
        statement.bindText(index++, value);
    }
    return index;
}

std::string AuditRunFilter::parameter(std::string value) {
    values_.push_back(std::move(value));
    return "?" + std::to_string(values_.size());
}

void AuditRunFilter::where(const std::string& condition) {
    sql_ += sql_.empty() ? "WHERE " : "AND ";
    sql_ += condition + " ";
}

} // namespace quorlin
