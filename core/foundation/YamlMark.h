#pragma once

#include <cstddef>
#include <string>

namespace quorlin {

// Where a node starts in its source text, 1-based, for error messages. Line 0 means the
// node has no source text (it was built from JSON or in code).
struct YamlMark {
    std::size_t line = 0;
    std::size_t column = 0;
};

// message with " (line L, column C)" after it; a mark with line 0 adds nothing.
inline std::string withYamlMark(std::string message, const YamlMark& mark) {
    if (mark.line == 0) {
        return message;
    }
    return message + " (line " + std::to_string(mark.line) + ", column " +
           std::to_string(mark.column) + ")";
}

} // namespace quorlin
