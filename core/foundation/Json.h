#pragma once

#include "Error.h"

#include <filesystem>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

class JsonError : public Error {
public:
    // detail: the parser's own words, its exception id left out; source: the file the
    // text came from, when known.
    explicit JsonError(const std::string& detail, const std::filesystem::path& source = {});

    const std::string& detail() const { return detail_; }

private:
    std::string detail_;
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
