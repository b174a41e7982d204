#pragma once

#include <bitset>
#include <optional>
#include <string_view>
#include <vector>

namespace quorlin {

// The values one field of a cron expression allows, such as the hours 8 to 18. Every
// field's range lies within 0...63, so the set is a bit mask: a test is one instruction.
class CronField {
public:
    // Reads a comma-separated list of items, each "*", "n" or "a-b", optionally followed
    // by "/step", with every value inside lower...upper. Empty list items are skipped
    // ("1,,5" is "1,5"). Nothing when any item is malformed or the list holds none.
    static std::optional<CronField> parse(std::string_view text, int lower, int upper);

    bool contains(int value) const {
        return value >= 0 && value < static_cast<int>(allowed_.size()) &&
               allowed_.test(static_cast<std::size_t>(value));
    }

    // The smallest allowed value that is at least value, if any.
    std::optional<int> firstAllowedFrom(int value) const;

    // In ascending order.
    std::vector<int> allowedValues() const;

    friend bool operator==(const CronField&, const CronField&) = default;

private:
    std::bitset<64> allowed_;
};

} // namespace quorlin
