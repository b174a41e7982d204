#include "Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace quorlin {

namespace {

std::string errorText(int code) {
    PCRE2_UCHAR buffer[256];
    pcre2_get_error_message(code, buffer, sizeof buffer);
    return reinterpret_cast<const char*>(buffer);
}

struct CodeDeleter {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

} // namespace

struct Regex::Compiled {
    std::unique_ptr<pcre2_code, CodeDeleter> code;
};

RegexError::RegexError(const std::string& pattern, const std::string& detail)
    : Error("Invalid regular expression " + pattern + ": " + detail) {}

Regex::Regex(std::string_view pattern, bool caseInsensitive)
    : compiled_(std::make_unique<Compiled>()) {
    int code = 0;
    PCRE2_SIZE offset = 0;
    const uint32_t options = PCRE2_UTF | PCRE2_UCP | (caseInsensitive ? PCRE2_CASELESS : 0U);
    compiled_->code.reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()),
                                        pattern.size(), options, &code, &offset, nullptr));
    if (!compiled_->code) {
        throw RegexError(std::string(pattern),
                         errorText(code) + " at offset " + std::to_string(offset));
    }
}

Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

std::vector<Regex::Match> Regex::allMatches(std::string_view text) const {
    return matches(text, false);
}

std::optional<Regex::Match> Regex::firstMatch(std::string_view text) const {
    auto found = matches(text, true);
    if (found.empty()) {
        return std::nullopt;
    }
    return std::move(found.front());
}

std::vector<Regex::Match> Regex::matches(std::string_view text, bool firstOnly) const {
    std::vector<Match> found;
    std::unique_ptr<pcre2_match_data, MatchDataDeleter> data(
        pcre2_match_data_create_from_pattern(compiled_->code.get(), nullptr));
    const auto* subject = reinterpret_cast<PCRE2_SPTR>(text.data());
    PCRE2_SIZE start = 0;
    while (start <= text.size()) {
        const int count =
            pcre2_match(compiled_->code.get(), subject, text.size(), start, 0, data.get(), nullptr);
        if (count <= 0) {
            break; // no more matches, or text that is not UTF-8
        }
        const PCRE2_SIZE* vector = pcre2_get_ovector_pointer(data.get());
        const PCRE2_SIZE matchBegin = vector[0];
        const PCRE2_SIZE matchEnd = vector[1];
        Match match(static_cast<std::size_t>(count));
        for (std::size_t group = 0; group < match.size(); ++group) {
            if (vector[2 * group] != PCRE2_UNSET) {
                match[group] = {vector[2 * group], vector[2 * group + 1], true};
            }
        }
        found.push_back(std::move(match));
        if (firstOnly) {
            break;
        }
        // An empty match moves on by one character so the scan always advances.
        PCRE2_SIZE next = matchEnd;
        if (matchEnd == matchBegin) {
            ++next;
            while (next < text.size() &&
                   (static_cast<unsigned char>(text[next]) & 0xC0U) == 0x80U) {
                ++next;
            }
        }
        start = next;
    }
    return found;
}

} // namespace quorlin
