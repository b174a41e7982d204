#include "BlockReference.h"

#include "core/foundation/Text.h"

#include <vector>

namespace quorlin {

namespace {

std::string describe(BlockReferenceError::Kind kind, const std::string& text) {
    switch (kind) {
    case BlockReferenceError::Kind::invalidFormat:
        return "Block reference must use <block-id>@<semver> format: " + text;
    case BlockReferenceError::Kind::invalidID:
        return "Invalid block id: " + text;
    case BlockReferenceError::Kind::invalidVersion:
        return "Block version must be an exact semver such as 0.1.0: " + text;
    }
    return text;
}

// Splits at every separator, keeping empty parts.
std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t found = text.find(separator, start);
        if (found == std::string_view::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, found - start));
        start = found + 1;
    }
}

template <typename Accept> bool allCharacters(std::string_view text, Accept accept) {
    std::size_t offset = 0;
    while (offset < text.size()) {
        if (!accept(decodeCodePoint(text, offset))) {
            return false;
        }
    }
    return true;
}

bool isValidBlockID(std::string_view id) {
    if (id.empty() || id.find_first_of("/\\@") != std::string_view::npos) {
        return false;
    }
    for (const auto segment : split(id, '.')) {
        const bool valid = !segment.empty() && allCharacters(segment, [](char32_t c) {
            return isLetter(c) || isNumber(c) || c == U'-' || c == U'_';
        });
        if (!valid) {
            return false;
        }
    }
    return true;
}

bool isExactVersion(std::string_view version) {
    const auto parts = split(version, '.');
    if (parts.size() != 3) {
        return false;
    }
    for (const auto part : parts) {
        if (part.empty() || !allCharacters(part, isNumber)) {
            return false;
        }
    }
    return true;
}

} // namespace

BlockReferenceError::BlockReferenceError(Kind kind, const std::string& text)
    : Error(describe(kind, text)), kind_(kind) {}

BlockReference BlockReference::parse(std::string_view text) {
    const std::string trimmedText = trimmed(text);
    const auto parts = split(trimmedText, '@');
    if (parts.size() != 2) {
        throw BlockReferenceError(BlockReferenceError::Kind::invalidFormat, std::string(text));
    }
    if (!isValidBlockID(parts[0])) {
        throw BlockReferenceError(BlockReferenceError::Kind::invalidID, std::string(parts[0]));
    }
    if (!isExactVersion(parts[1])) {
        throw BlockReferenceError(BlockReferenceError::Kind::invalidVersion, std::string(parts[1]));
    }
    return {std::string(parts[0]), std::string(parts[1])};
}

} // namespace quorlin
