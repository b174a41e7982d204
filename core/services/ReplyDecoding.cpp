#include "ReplyDecoding.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

#include <limits>

namespace quorlin {

namespace {

std::string describe(const nlohmann::json& value) {
    switch (value.type()) {
    case nlohmann::json::value_t::null:
        return "null";
    case nlohmann::json::value_t::object:
        return "an object";
    case nlohmann::json::value_t::array:
        return "an array";
    case nlohmann::json::value_t::string:
        return "a string";
    case nlohmann::json::value_t::boolean:
        return "a boolean";
    default:
        return "a number";
    }
}

[[noreturn]] void mismatch(const nlohmann::json& value, const std::string& path,
                           std::string expected) {
    throw DecodingError(DecodingError::Kind::typeMismatch, path, std::move(expected),
                        describe(value));
}

const nlohmann::json& objectAt(const nlohmann::json& value, const std::string& path) {
    if (!value.is_object()) {
        mismatch(value, path, "an object");
    }
    return value;
}

} // namespace

nlohmann::json parseReplyJson(std::string_view body) {
    return parseJson(body);
}

std::string replyKeyPath(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

const nlohmann::json* optionalReplyMember(const nlohmann::json& object, std::string_view key,
                                          const std::string& path) {
    const auto& members = objectAt(object, path);
    const auto found = members.find(key);
    return found == members.end() ? nullptr : &*found;
}

const nlohmann::json& requiredReplyMember(const nlohmann::json& object, std::string_view key,
                                          const std::string& path) {
    if (const auto* member = optionalReplyMember(object, key, path)) {
        return *member;
    }
    throw DecodingError(DecodingError::Kind::keyNotFound, path, std::string(key));
}

std::string replyString(const nlohmann::json& value, const std::string& path) {
    if (!value.is_string()) {
        mismatch(value, path, "a string");
    }
    return value.get<std::string>();
}

std::int64_t replyInteger(const nlohmann::json& value, const std::string& path) {
    // The parser keeps non-negative integers unsigned.
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            mismatch(value, path, "a 64-bit integer");
        }
        return static_cast<std::int64_t>(number);
    }
    if (value.is_number_integer()) {
        return value.get<std::int64_t>();
    }
    mismatch(value, path, "an integer");
}

const nlohmann::json& replyArray(const nlohmann::json& value, const std::string& path) {
    if (!value.is_array()) {
        mismatch(value, path, "an array");
    }
    return value;
}

std::string utf8BodyText(const std::string& body) {
    return isValidUtf8(body) ? body : "";
}

} // namespace quorlin
