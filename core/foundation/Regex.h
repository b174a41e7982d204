#pragma once

#include "Error.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

class RegexError : public Error {
public:
    // detail: PCRE2's own words and the offset in the pattern.
    RegexError(const std::string& pattern, const std::string& detail);
};

// A compiled regular expression over UTF-8 text, with Unicode classes (\w, \d, \s match
// beyond ASCII). Safe to use from several threads at once.
class Regex {
public:
    struct Group {
        std::size_t begin = 0;
        std::size_t end = 0;
        bool matched = false;
    };
    // The whole match is group 0.
    using Match = std::vector<Group>;

    explicit Regex(std::string_view pattern, bool caseInsensitive = false);
    ~Regex();
    Regex(Regex&&) noexcept;
    Regex& operator=(Regex&&) noexcept;

    // Every non-overlapping match, left to right. Invalid UTF-8 in text gives none.
    std::vector<Match> allMatches(std::string_view text) const;
    std::optional<Match> firstMatch(std::string_view text) const;

private:
    std::vector<Match> matches(std::string_view text, bool firstOnly) const;

    struct Compiled;
    std::unique_ptr<Compiled> compiled_;
};

} // namespace quorlin
