#include "Json.h"

namespace quorlin {

namespace {

// "[json.exception.parse_error.101] parse error at line 2, ..." -> "line 2, ...": the
// exception's id means nothing to a person.
std::string withoutExceptionID(const std::string& detail) {
    std::string text = detail;
    if (text.starts_with("[json.exception.")) {
        if (const auto end = text.find("] "); end != std::string::npos) {
            text.erase(0, end + 2);
        }
    }
    for (const std::string prefix : {"parse error at ", "parse error: "}) {
        if (text.starts_with(prefix)) {
            text.erase(0, prefix.size());
        }
    }
    return text;
}

std::string describe(const std::string& detail, const std::filesystem::path& source) {
    return "Invalid JSON" + (source.empty() ? std::string() : " in " + source.string()) + ": " +
           detail;
}

} // namespace

JsonError::JsonError(const std::string& detail, const std::filesystem::path& source)
    : Error(describe(withoutExceptionID(detail), source)), detail_(withoutExceptionID(detail)) {}

nlohmann::json parseJson(std::string_view text) {
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& error) {
        throw JsonError(error.what());
    }
}

nlohmann::json parseJsonOrDiscarded(std::string_view text) {
    return nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
}

// Text that is not valid UTF-8 is written with replacement characters rather than
// failing: what is dumped is always something a user can read.
std::string compactJson(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string compactJson(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string prettySortedJson(const nlohmann::json& value) {
    // nlohmann::json keeps objects in a std::map, so keys come out sorted.
    return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace quorlin
