#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tessel::common {

// The word of the list that is most likely meant by `word`: the fewest letters to insert, remove, replace or
// swap with a neighbor. Empty when none is near: more than a third of the letters would have to change.
std::string_view nearest_word(std::string_view word, std::span<const std::string_view> words);

// "; did you mean 'NEAREST'?", or nothing when none is near: the end of an error about an unknown word.
std::string did_you_mean(std::string_view word, std::span<const std::string_view> words);

}  // namespace tessel::common
