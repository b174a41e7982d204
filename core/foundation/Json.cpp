#include "Json.h"

namespace quorlin {

JsonError::JsonError(const std::string& detail) : Error("Invalid JSON: " + detail) {}

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
