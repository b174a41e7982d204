#include "WorkflowValue.h"

#include "core/definitions/WorkflowScalarRules.h"
#include "core/foundation/Text.h"

#include <cmath>

namespace quorlin {

namespace {

// 2^63, exactly representable as a double.
constexpr double int64Bound = 9223372036854775808.0;

} // namespace

std::optional<std::int64_t> WorkflowValue::intValue() const {
    if (const auto* number = integer()) {
        return *number;
    }
    if (const auto* number = real()) {
        // Callers are meant to guard these; answering absent rather than stopping keeps a
        // forgotten guard from letting a workflow file crash the process.
        const double truncated = std::trunc(*number);
        if (!std::isfinite(truncated) || truncated < -int64Bound || truncated >= int64Bound) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(truncated);
    }
    if (const auto* text = string()) {
        return parseDecimalInteger(*text);
    }
    return std::nullopt;
}

std::optional<bool> WorkflowValue::boolValue() const {
    if (const auto* flag = boolean()) {
        return *flag;
    }
    if (const auto* text = string()) {
        const auto word = lowercased(trimmed(*text));
        if (word == "true" || word == "yes" || word == "1") {
            return true;
        }
        if (word == "false" || word == "no" || word == "0") {
            return false;
        }
    }
    return std::nullopt;
}

std::optional<double> WorkflowValue::timeIntervalValue() const {
    if (const auto* number = real()) {
        return *number;
    }
    if (const auto* number = integer()) {
        return static_cast<double>(*number);
    }
    if (const auto* text = string()) {
        return parseFloatingNumber(*text);
    }
    return std::nullopt;
}

} // namespace quorlin
