#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// What the fuzz targets share.
namespace tessel::fuzz {

// Ends the process when a rule is broken, which is how a target reports a finding. The reason goes to
// standard output: standard error is the feed's, and closed while fuzzing.
inline void check(bool good, std::string_view what) {
    if (!good) {
        std::printf("broken: %.*s\n", static_cast<int>(what.size()), what.data());
        std::fflush(stdout);
        std::abort();
    }
}

// Takes the text up to the next separator off the front.
inline std::string take_piece(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    std::string piece(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return piece;
}

}  // namespace tessel::fuzz
