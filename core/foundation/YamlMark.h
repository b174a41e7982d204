#pragma once

#include <cstddef>

namespace quorlin {

// Where a node starts in its source text, 1-based, for error messages. Line 0 means the
// node has no source text (it was built from JSON or in code).
struct YamlMark {
    std::size_t line = 0;
    std::size_t column = 0;
};

} // namespace quorlin
