#pragma once

#include "Error.h"

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

class JsonError : public Error {
public:
    // detail: the parser's own words.
    explicit JsonError(const std::string& detail);
};

// Parses JSON text; a malformed text throws JsonError.
nlohmann::json parseJson(std::string_view text);

// Like parseJson, but gives a discarded value instead of throwing, for callers for whom
// "not JSON" is an ordinary answer.
nlohmann::json parseJsonOrDiscarded(std::string_view text);

// The working form between steps: compact, keys in the object's own order.
std::string compactJson(const nlohmann::json& value);
std::string compactJson(const nlohmann::ordered_json& value);

// The audit form: two-space indentation, keys sorted.
std::string prettySortedJson(const nlohmann::json& value);

} // namespace quorlin
