#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorlin {

// Unicode helpers over UTF-8 text. Invalid byte sequences are treated as U+FFFD, so no
// input can make them fail.

// Trims Unicode white space and line ends from both ends.
std::string trimmed(std::string_view text);

// Unicode case mappings, code point by code point.
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

bool isValidUtf8(std::string_view bytes);

// Unicode general categories L* and N*.
bool isLetter(char32_t codePoint);
bool isNumber(char32_t codePoint);
bool isWhitespaceOrNewline(char32_t codePoint);

// Decodes the code point at offset, advancing offset past it.
char32_t decodeCodePoint(std::string_view text, std::size_t& offset);
void appendCodePoint(std::string& out, char32_t codePoint);

bool startsWith(std::string_view text, std::string_view prefix);

// text fit for a terminal: control characters other than line feed and tab, and bytes
// that are not UTF-8, are written as \xNN (\u{NNNN} for C1 controls); the rest as it is.
std::string escapedControlBytes(std::string_view text);

// A size for people: "16 MiB" or "1 GiB" where it is a whole number of them, else
// "1234 bytes".
std::string byteSizeText(std::uint64_t bytes);
bool endsWith(std::string_view text, std::string_view suffix);

} // namespace quorlin
