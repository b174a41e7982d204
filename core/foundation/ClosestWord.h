#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The candidate a mistyped word most likely meant, for "did you mean …?" hints: the one
// fewest single-character edits away (a swap of two neighbours counts as one), ignoring
// ASCII letter case. None when even the best is too far off to be a typo: more than a
// third of the word's length, and never more than three edits.
std::optional<std::string> closestWord(std::string_view word,
                                       const std::vector<std::string>& candidates);

// Single-character insertions, deletions, substitutions and neighbour swaps that turn
// one word into the other, ignoring ASCII letter case.
std::size_t editDistance(std::string_view left, std::string_view right);

} // namespace quorlin
