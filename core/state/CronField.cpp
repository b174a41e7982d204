#include "CronField.h"

#include <charconv>
#include <cstdint>

namespace quorlin {

namespace {

using Mask = std::bitset<64>;

// Decimal ASCII digits with an optional leading "+"; a value beyond 64 bits is no number.
std::optional<std::int64_t> parseInteger(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() < '0' || text.front() > '9') {
        return std::nullopt;
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

struct Bounds {
    std::int64_t low;
    std::int64_t high;
};

// "*", "a-b" (no wrap-around: a <= b, both in range) or a single value.
std::optional<Bounds> parseBase(std::string_view base, int lower, int upper) {
    if (base == "*") {
        return Bounds{lower, upper};
    }
    if (const auto dash = base.find('-'); dash != std::string_view::npos) {
        if (base.find('-', dash + 1) != std::string_view::npos) {
            return std::nullopt;
        }
        const auto low = parseInteger(base.substr(0, dash));
        const auto high = parseInteger(base.substr(dash + 1));
        if (!low || !high || *low > *high || *low < lower || *high > upper) {
            return std::nullopt;
        }
        return Bounds{*low, *high};
    }
    const auto value = parseInteger(base);
    if (!value || *value < lower || *value > upper) {
        return std::nullopt;
    }
    return Bounds{*value, *value};
}

// One list item: its base, then every step-th value from its low end up to its high end.
// A step on a single value is checked and changes nothing ("5/15" is just 5).
std::optional<Mask> parseItem(std::string_view item, int lower, int upper) {
    std::int64_t step = 1;
    std::string_view base = item;
    if (const auto slash = item.find('/'); slash != std::string_view::npos) {
        if (item.find('/', slash + 1) != std::string_view::npos) {
            return std::nullopt;
        }
        const auto parsedStep = parseInteger(item.substr(slash + 1));
        if (!parsedStep || *parsedStep < 1) {
            return std::nullopt;
        }
        step = *parsedStep;
        base = item.substr(0, slash);
    }
    const auto bounds = parseBase(base, lower, upper);
    if (!bounds) {
        return std::nullopt;
    }
    Mask values;
    // Compared as a distance so that a huge step cannot overflow.
    for (std::int64_t value = bounds->low;; value += step) {
        values.set(static_cast<std::size_t>(value));
        if (bounds->high - value < step) {
            break;
        }
    }
    return values;
}

} // namespace

std::optional<CronField> CronField::parse(std::string_view text, int lower, int upper) {
    CronField field;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const auto item = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        if (item.empty()) {
            continue;
        }
        const auto values = parseItem(item, lower, upper);
        if (!values) {
            return std::nullopt;
        }
        field.allowed_ |= *values;
    }
    if (field.allowed_.none()) {
        return std::nullopt;
    }
    return field;
}

std::optional<int> CronField::firstAllowedFrom(int value) const {
    for (int candidate = value < 0 ? 0 : value; candidate < static_cast<int>(allowed_.size());
         ++candidate) {
        if (allowed_.test(static_cast<std::size_t>(candidate))) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::vector<int> CronField::allowedValues() const {
    std::vector<int> values;
    for (std::size_t value = 0; value < allowed_.size(); ++value) {
        if (allowed_.test(value)) {
            values.push_back(static_cast<int>(value));
        }
    }
    return values;
}

} // namespace quorlin
