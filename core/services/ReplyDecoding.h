#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

// Reading the JSON replies of outside services into their wire records. Malformed text
// throws JsonError; JSON of the wrong shape throws DecodingError naming the coding path
// ("content[1].text"). Keys nobody asks for are ignored.

nlohmann::json parseReplyJson(std::string_view body);

std::string replyKeyPath(const std::string& path, std::string_view key);

// The member of an object; an absent key is a DecodingError. nullptr when optional.
const nlohmann::json& requiredReplyMember(const nlohmann::json& object, std::string_view key,
                                          const std::string& path);
const nlohmann::json* optionalReplyMember(const nlohmann::json& object, std::string_view key,
                                          const std::string& path);

std::string replyString(const nlohmann::json& value, const std::string& path);
std::int64_t replyInteger(const nlohmann::json& value, const std::string& path);
const nlohmann::json& replyArray(const nlohmann::json& value, const std::string& path);

// A reply body as text: the bytes when they are UTF-8, else empty, as error texts want it.
std::string utf8BodyText(const std::string& body);

} // namespace quorlin
