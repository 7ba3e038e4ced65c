#include "common/nearest_word.h"

#include <algorithm>
#include <vector>

namespace tessel::common {

namespace {

constexpr std::size_t compared_bytes_max = 64;  // longer ones are no slip of the keys

// Insertions, removals, replacements and swaps of neighbors that make one word of the other.
std::size_t distance(std::string_view left, std::string_view right) {
    const std::size_t width = right.size() + 1;
    std::vector<std::size_t> cells((left.size() + 1) * width);
    for (std::size_t row = 0; row <= left.size(); ++row) {
        for (std::size_t column = 0; column < width; ++column) {
            std::size_t& cell = cells[row * width + column];
            if (row == 0 || column == 0) {
                cell = row + column;
                continue;
            }
            const std::size_t differs = left[row - 1] == right[column - 1] ? 0 : 1;
            cell = std::min({cells[(row - 1) * width + column] + 1, cells[row * width + column - 1] + 1,
                             cells[(row - 1) * width + column - 1] + differs});
            if (row > 1 && column > 1 && left[row - 1] == right[column - 2] &&
                left[row - 2] == right[column - 1]) {
                cell = std::min(cell, cells[(row - 2) * width + column - 2] + 1);
            }
        }
    }
    return cells.back();
}

}  // namespace

std::string_view nearest_word(std::string_view word, std::span<const std::string_view> words) {
    std::string_view nearest;
    std::size_t least = compared_bytes_max;
    if (word.size() > compared_bytes_max) {
        return nearest;
    }
    for (const std::string_view candidate : words) {
        const std::size_t found = distance(word, candidate);
        if (found < least && found <= std::max<std::size_t>(1, std::max(word.size(), candidate.size()) / 3)) {
            least = found;
            nearest = candidate;
        }
    }
    return nearest;
}

std::string did_you_mean(std::string_view word, std::span<const std::string_view> words) {
    const std::string_view nearest = nearest_word(word, words);
    return nearest.empty() ? "" : "; did you mean '" + std::string(nearest) + "'?";
}

}  // namespace tessel::common
