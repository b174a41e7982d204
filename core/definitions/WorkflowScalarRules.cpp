#include "WorkflowScalarRules.h"

#include "core/foundation/Text.h"

#include <array>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <stdlib.h>
#include <string>
#include <vector>

namespace quorlin {

namespace {

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

} // namespace quorlin
