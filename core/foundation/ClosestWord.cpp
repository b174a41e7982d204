#include "core/foundation/ClosestWord.h"

#include <algorithm>
#include <cctype>

namespace quorlin {

namespace {

char folded(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

} // namespace

std::size_t editDistance(std::string_view left, std::string_view right) {
    // Optimal string alignment over three rows: the one before last is needed for swaps.
    const std::size_t width = right.size() + 1;
    std::vector<std::size_t> beforeLast(width), last(width), current(width);
    for (std::size_t column = 0; column < width; ++column) {
        last[column] = column;
    }
    for (std::size_t row = 1; row <= left.size(); ++row) {
        current[0] = row;
        for (std::size_t column = 1; column < width; ++column) {
            const bool same = folded(left[row - 1]) == folded(right[column - 1]);
            current[column] = std::min(
                {last[column] + 1, current[column - 1] + 1, last[column - 1] + (same ? 0 : 1)});
            if (row > 1 && column > 1 && folded(left[row - 1]) == folded(right[column - 2]) &&
                folded(left[row - 2]) == folded(right[column - 1])) {
                current[column] = std::min(current[column], beforeLast[column - 2] + 1);
            }
        }
        std::swap(beforeLast, last);
        std::swap(last, current);
    }
    return last[right.size()];
}

std::optional<std::string> closestWord(std::string_view word,
                                       const std::vector<std::string>& candidates) {
    const std::size_t allowed = std::min<std::size_t>(3, std::max<std::size_t>(1, word.size() / 3));
    std::optional<std::string> best;
    std::size_t bestDistance = allowed + 1;
    for (const auto& candidate : candidates) {
        const auto distance = editDistance(word, candidate);
        if (distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

} // namespace quorlin
