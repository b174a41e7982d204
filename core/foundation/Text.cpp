#include "Text.h"

#include <cstdio>
#include <utility>

#include <utf8proc.h>

namespace quorlin {

namespace {

constexpr char32_t replacementCharacter = 0xFFFD;

} // namespace

char32_t decodeCodePoint(std::string_view text, std::size_t& offset) {
    utf8proc_int32_t codePoint = 0;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data() + offset);
    const auto length =
        utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size() - offset), &codePoint);
    if (length <= 0) {
        offset += 1;
        return replacementCharacter;
    }
    offset += static_cast<std::size_t>(length);
    return static_cast<char32_t>(codePoint);
}

void appendCodePoint(std::string& out, char32_t codePoint) {
    utf8proc_uint8_t buffer[4];
    const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(codePoint), buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

bool isValidUtf8(std::string_view bytes) {
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        utf8proc_int32_t codePoint = 0;
        const auto length =
            utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(bytes.data() + offset),
                             static_cast<utf8proc_ssize_t>(bytes.size() - offset), &codePoint);
        if (length <= 0) {
            return false;
        }
        offset += static_cast<std::size_t>(length);
    }
    return true;
}

bool isLetter(char32_t codePoint) {
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(codePoint))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
        return true;
    default:
        return false;
    }
}

bool isNumber(char32_t codePoint) {
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(codePoint))) {
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
        return true;
    default:
        return false;
    }
}

bool isWhitespaceOrNewline(char32_t codePoint) {
    // The Unicode White_Space property: Zs plus the controls and separators below.
    switch (codePoint) {
    case 0x09:
    case 0x0A:
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x85:
    case 0x2028:
    case 0x2029:
        return true;
    default:
        return utf8proc_category(static_cast<utf8proc_int32_t>(codePoint)) == UTF8PROC_CATEGORY_ZS;
    }
}

std::string trimmed(std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    std::size_t offset = 0;
    bool seenContent = false;
    while (offset < text.size()) {
        const std::size_t start = offset;
        const char32_t codePoint = decodeCodePoint(text, offset);
        if (isWhitespaceOrNewline(codePoint)) {
            continue;
        }
        if (!seenContent) {
            begin = start;
            seenContent = true;
        }
        end = offset;
    }
    return seenContent ? std::string(text.substr(begin, end - begin)) : std::string();
}

namespace {

std::string mapped(std::string_view text, utf8proc_int32_t (*mapping)(utf8proc_int32_t)) {
    std::string result;
    result.reserve(text.size());
    std::size_t offset = 0;
    while (offset < text.size()) {
        const char32_t codePoint = decodeCodePoint(text, offset);
        appendCodePoint(result,
                        static_cast<char32_t>(mapping(static_cast<utf8proc_int32_t>(codePoint))));
    }
    return result;
}

} // namespace

std::string lowercased(std::string_view text) {
    return mapped(text, utf8proc_tolower);
}

std::string uppercased(std::string_view text) {
    return mapped(text, utf8proc_toupper);
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string byteSizeText(std::uint64_t bytes) {
    for (const auto& [unit, size] :
         {std::pair{"GiB", std::uint64_t{1} << 30U}, std::pair{"MiB", std::uint64_t{1} << 20U}}) {
        if (bytes >= size && bytes % size == 0) {
            return std::to_string(bytes / size) + " " + unit;
        }
    }
    return std::to_string(bytes) + " bytes";
}

std::string escapedControlBytes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    char code[16];
    for (std::size_t offset = 0; offset < text.size();) {
        const std::size_t start = offset;
        const char32_t character = decodeCodePoint(text, offset);
        const bool invalid = character == replacementCharacter &&
                             text.substr(start, offset - start) != "\xEF\xBF\xBD";
        if (invalid) {
            std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(text[start]));
            out += code;
        } else if ((character < 0x20 && character != U'\n' && character != U'\t') ||
                   character == 0x7F) {
            std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned>(character));
            out += code;
        } else if (character >= 0x80 && character < 0xA0) {
            std::snprintf(code, sizeof code, "\\u{%04X}", static_cast<unsigned>(character));
            out += code;
        } else {
            out.append(text.substr(start, offset - start));
        }
    }
    return out;
}

} // namespace quorlin
