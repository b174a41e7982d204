#include "WorkflowValueCoding.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <stdlib.h>
#include <type_traits>
#include <variant>
#include <vector>

namespace quorlin {

namespace {

constexpr double int64Bound = 9223372036854775808.0; // 2^63
constexpr std::uint64_t int64MinMagnitude = std::uint64_t{1} << 63U;

// The "C" locale, so that reading "1.5" never depends on the user's decimal separator.
class CLocale {
public:
    CLocale() : locale_(newlocale(LC_ALL_MASK, "C", locale_t{})) {}
    ~CLocale() {
        if (locale_ != locale_t{}) {
            freelocale(locale_);
        }
    }
    CLocale(const CLocale&) = delete;
    CLocale& operator=(const CLocale&) = delete;
    locale_t get() const { return locale_; }

private:
    locale_t locale_;
};

std::string withoutUnderscores(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char character : text) {
        if (character != '_') {
            result.push_back(character);
        }
    }
    return result;
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// Splits off a leading "+" or "-"; true when it was "-".
bool takeSign(std::string_view& text) {
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        const bool negative = text.front() == '-';
        text.remove_prefix(1);
        return negative;
    }
    return false;
}

std::optional<std::uint64_t> parseMagnitude(std::string_view digits, int base) {
    std::uint64_t value = 0;
    if (digits.empty()) {
        return std::nullopt;
    }
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::int64_t> signedValue(std::uint64_t magnitude, bool negative) {
    if (negative) {
        if (magnitude > int64MinMagnitude) {
            return std::nullopt;
        }
        // Two's complement negation in unsigned arithmetic reaches INT64_MIN without overflow.
        return static_cast<std::int64_t>(~magnitude + 1U);
    }
    if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(magnitude);
}

std::vector<std::string_view> splitColons(std::string_view text) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const auto colon = text.find(':', start);
        parts.push_back(
            text.substr(start, colon == std::string_view::npos ? colon : colon - start));
        if (colon == std::string_view::npos) {
            return parts;
        }
        start = colon + 1;
    }
}

// "1:30" is 90: parts combined most significant first in base 60.
std::optional<std::int64_t> sexagesimalInteger(std::string_view text) {
    const bool negative = takeSign(text);
    std::uint64_t total = 0;
    for (const auto part : splitColons(text)) {
        const auto value = parseMagnitude(part, 10);
        if (!value || __builtin_mul_overflow(total, std::uint64_t{60}, &total) ||
            __builtin_add_overflow(total, *value, &total)) {
            return std::nullopt;
        }
    }
    return signedValue(total, negative);
}

std::optional<double> sexagesimalDouble(std::string_view text) {
    const bool negative = takeSign(text);
    double total = 0;
    for (const auto part : splitColons(text)) {
        // Each part is a plain decimal number: digits with at most one point.
        if (part.empty() || part == "." ||
            part.find_first_not_of("0123456789.") != std::string_view::npos ||
            part.find('.') != part.rfind('.')) {
            return std::nullopt;
        }
        const auto value = parseFloatingNumber(part);
        if (!value) {
            return std::nullopt;
        }
        total = total * 60 + *value;
    }
    return negative ? -total : total;
}

// A prefix decides the base; once one matched, a rest that does not parse makes the text
// no integer at all, which is how "09" and "08:30" end up as doubles.
std::optional<std::int64_t> yamlIntegerText(std::string_view original) {
    const std::string text = withoutUnderscores(original);
    if (text == "0") {
        return 0;
    }
    std::string_view rest = text;
    const bool negative = takeSign(rest);
    constexpr std::array<std::pair<std::string_view, int>, 3> prefixes{
        {{"0x", 16}, {"0b", 2}, {"0o", 8}}};
    for (const auto& [prefix, base] : prefixes) {
        if (startsWith(rest, prefix)) {
            const auto magnitude = parseMagnitude(rest.substr(prefix.size()), base);
            return magnitude ? signedValue(*magnitude, negative) : std::nullopt;
        }
    }
    if (startsWith(rest, "0")) {
        const auto magnitude = parseMagnitude(rest.substr(1), 8);
        return magnitude ? signedValue(*magnitude, negative) : std::nullopt;
    }
    if (text.find(':') != std::string::npos) {
        return sexagesimalInteger(text);
    }
    if (!rest.empty() && !isDigit(rest.front())) {
        return std::nullopt;
    }
    const auto magnitude = parseMagnitude(rest, 10);
    return magnitude ? signedValue(*magnitude, negative) : std::nullopt;
}

std::optional<double> yamlDoubleText(std::string_view original) {
    constexpr std::array<std::string_view, 6> positiveInfinity{".inf",  ".Inf",  ".INF",
                                                               "+.inf", "+.Inf", "+.INF"};
    constexpr std::array<std::string_view, 3> negativeInfinity{"-.inf", "-.Inf", "-.INF"};
    constexpr std::array<std::string_view, 3> notANumber{".nan", ".NaN", ".NAN"};
    const auto isOneOf = [original](const auto& spellings) {
        for (const auto spelling : spellings) {
            if (original == spelling) {
                return true;
            }
        }
        return false;
    };
    if (isOneOf(positiveInfinity)) {
        return std::numeric_limits<double>::infinity();
    }
    if (isOneOf(negativeInfinity)) {
        return -std::numeric_limits<double>::infinity();
    }
    if (isOneOf(notANumber)) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const std::string text = withoutUnderscores(original);
    if (text.find(':') != std::string::npos) {
        return sexagesimalDouble(text);
    }
    return parseFloatingNumber(text);
}

bool isPlainScalar(const YamlNode& node) {
    return node.isScalar() && node.plain;
}

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
        const auto number = json.get<std::uint64_t>();
        if (const auto value = signedValue(number, false)) {
            return *value;
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

std::optional<std::int64_t> parseDecimalInteger(std::string_view text) {
    std::string_view digits = text;
    const bool negative = takeSign(digits);
    if (digits.empty() || !isDigit(digits.front())) {
        return std::nullopt;
    }
    const auto magnitude = parseMagnitude(digits, 10);
    return magnitude ? signedValue(*magnitude, negative) : std::nullopt;
}

std::optional<double> parseFloatingNumber(std::string_view text) {
    static const CLocale cLocale;
    // strtod would skip leading blanks; the whole text must be the number.
    if (text.empty() ||
        std::string_view(" \t\n\v\f\r").find(text.front()) != std::string_view::npos) {
        return std::nullopt;
    }
    const std::string terminated(text);
    char* end = nullptr;
    // Should the "C" locale be unavailable, the process locale is the best left.
    const double value = cLocale.get() != locale_t{}
                             ? strtod_l(terminated.c_str(), &end, cLocale.get())
                             : std::strtod(terminated.c_str(), &end);
    if (end != terminated.c_str() + terminated.size()) {
        return std::nullopt;
    }
    return value;
}

bool isYamlNull(const YamlNode& node) {
    if (!isPlainScalar(node)) {
        return false;
    }
    const auto& text = node.text;
    return text.empty() || text == "~" || text == "null" || text == "Null" || text == "NULL";
}

std::optional<bool> yamlBool(const YamlNode& node) {
    if (!isPlainScalar(node)) {
        return std::nullopt;
    }
    const auto word = lowercased(node.text);
    if (word == "true" || word == "yes" || word == "on") {
        return true;
    }
    if (word == "false" || word == "no" || word == "off") {
        return false;
    }
    return std::nullopt;
}

std::optional<std::int64_t> yamlInteger(const YamlNode& node) {
    return isPlainScalar(node) ? yamlIntegerText(node.text) : std::nullopt;
}

std::optional<double> yamlDouble(const YamlNode& node) {
    return isPlainScalar(node) ? yamlDoubleText(node.text) : std::nullopt;
}

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
