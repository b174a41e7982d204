#include "WorkflowValueCoding.h"

#include "core/definitions/DecodingError.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>
#include <variant>

namespace quorlin {

namespace {

constexpr double int64Bound = 9223372036854775808.0; // 2^63

void checkDepth(std::size_t depth, const std::string& codingPath) {
    if (depth > yamlMaxDepth) {
        throw DecodingError(DecodingError::Kind::dataCorrupted, codingPath,
                            "Values nest deeper than " + std::to_string(yamlMaxDepth) + " levels");
    }
}

std::optional<std::int64_t> exactInteger(double number) {
    if (std::isfinite(number) && std::trunc(number) == number && number >= -int64Bound &&
        number < int64Bound) {
        return static_cast<std::int64_t>(number);
    }
    return std::nullopt;
}

WorkflowValue fromJson(const nlohmann::json& json, const std::string& codingPath,
                       std::size_t depth) {
    using Type = nlohmann::json::value_t;
    switch (json.type()) {
    case Type::null:
        return WorkflowValue::Null{};
    case Type::boolean:
        return json.get<bool>();
    case Type::number_integer:
        return json.get<std::int64_t>();
    case Type::number_unsigned: {
        // Above the int64 range a number can only be kept as a double.
        const auto number = json.get<std::uint64_t>();
        if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(number);
        }
        return static_cast<double>(number);
    }
    case Type::number_float: {
        const auto number = json.get<double>();
        if (const auto value = exactInteger(number)) {
            return *value;
        }
        return number;
    }
    case Type::string:
        return json.get<std::string>();
    case Type::array: {
        checkDepth(depth, codingPath);
        WorkflowValue::Array array;
        array.reserve(json.size());
        for (std::size_t index = 0; index < json.size(); ++index) {
            array.push_back(
                fromJson(json[index], codingPath + "[" + std::to_string(index) + "]", depth + 1));
        }
        return array;
    }
    case Type::object: {
        checkDepth(depth, codingPath);
        WorkflowValue::Object object;
        for (const auto& [key, value] : json.items()) {
            const auto path = codingPath.empty() ? key : codingPath + "." + key;
            object.emplace(key, fromJson(value, path, depth + 1));
        }
        return object;
    }
    case Type::binary:
    case Type::discarded:
        break;
    }
    throw DecodingError(DecodingError::Kind::dataCorrupted, codingPath,
                        "Unsupported workflow value");
}

std::string numberText(double number) {
    if (const auto integer = exactInteger(number)) {
        return std::to_string(*integer);
    }
    std::array<char, 64> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
    return std::string(buffer.data(), result.ptr);
}

YamlNode nodeFromJson(const nlohmann::json& json, const std::string& codingPath,
                      std::size_t depth) {
    using Type = nlohmann::json::value_t;
    switch (json.type()) {
    case Type::null:
        return YamlNode::plainScalar("null");
    case Type::boolean:
        return YamlNode::plainScalar(json.get<bool>() ? "true" : "false");
    case Type::number_integer:
        return YamlNode::plainScalar(std::to_string(json.get<std::int64_t>()));
    case Type::number_unsigned:
        return YamlNode::plainScalar(std::to_string(json.get<std::uint64_t>()));
    case Type::number_float:
        return YamlNode::plainScalar(numberText(json.get<double>()));
    case Type::string:
        return YamlNode::quotedScalar(json.get<std::string>());
    case Type::array: {
        checkDepth(depth, codingPath);
        YamlNode node = YamlNode::sequence();
        node.items.reserve(json.size());
        for (std::size_t index = 0; index < json.size(); ++index) {
            node.items.push_back(nodeFromJson(
                json[index], codingPath + "[" + std::to_string(index) + "]", depth + 1));
        }
        return node;
    }
    case Type::object: {
        checkDepth(depth, codingPath);
        YamlNode node = YamlNode::mapping();
        node.entries.reserve(json.size());
        for (const auto& [key, value] : json.items()) {
            const auto path = codingPath.empty() ? key : codingPath + "." + key;
            node.entries.emplace_back(key, nodeFromJson(value, path, depth + 1));
        }
        return node;
    }
    case Type::binary:
    case Type::discarded:
        break;
    }
    throw DecodingError(DecodingError::Kind::dataCorrupted, codingPath, "Unsupported JSON value");
}

} // namespace

WorkflowValue workflowValueFromYaml(const YamlNode& node) {
    switch (node.kind) {
    case YamlNode::Kind::scalar:
        if (!node.plain) {
            return node.text;
        }
        if (isYamlNull(node)) {
            return WorkflowValue::Null{};
        }
        if (const auto flag = yamlBool(node)) {
            return *flag;
        }
        if (const auto integer = yamlInteger(node)) {
            return *integer;
        }
        if (const auto real = yamlDouble(node)) {
            return *real;
        }
        return node.text;
    case YamlNode::Kind::sequence: {
        WorkflowValue::Array array;
        array.reserve(node.items.size());
        for (const auto& item : node.items) {
            array.push_back(workflowValueFromYaml(item));
        }
        return array;
    }
    case YamlNode::Kind::mapping: {
        WorkflowValue::Object object;
        for (const auto& [key, value] : node.entries) {
            object.emplace(key, workflowValueFromYaml(value));
        }
        return object;
    }
    }
    return WorkflowValue::Null{};
}

WorkflowValue workflowValueFromJson(const nlohmann::json& json, const std::string& codingPath) {
    return fromJson(json, codingPath, 1);
}

nlohmann::json toJson(const WorkflowValue& value) {
    return std::visit(
        [](const auto& payload) -> nlohmann::json {
            using Payload = std::decay_t<decltype(payload)>;
            if constexpr (std::is_same_v<Payload, WorkflowValue::Null>) {
                return nullptr;
            } else if constexpr (std::is_same_v<Payload, double>) {
                return std::isfinite(payload) ? nlohmann::json(payload) : nlohmann::json(nullptr);
            } else if constexpr (std::is_same_v<Payload, WorkflowValue::Array>) {
                auto array = nlohmann::json::array();
                for (const auto& item : payload) {
                    array.push_back(toJson(item));
                }
                return array;
            } else if constexpr (std::is_same_v<Payload, WorkflowValue::Object>) {
                return toJson(payload);
            } else {
                return payload;
            }
        },
        value.storage());
}

nlohmann::json toJson(const WorkflowValueMap& map) {
    auto object = nlohmann::json::object();
    for (const auto& [key, value] : map) {
        object[key] = toJson(value);
    }
    return object;
}

YamlNode yamlNodeFromJson(const nlohmann::json& json) {
    return nodeFromJson(json, "", 1);
}

} // namespace quorlin
