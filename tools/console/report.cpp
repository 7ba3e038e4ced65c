#include "console/report.h"

#include <cstdio>
#include <string>

namespace tessel::console {

namespace {

constexpr std::size_t line_bytes_max = 200;

}  // namespace

void report(std::string_view text) {
    std::string line = "tessel-console: " + std::string(text);
    line.resize(std::min(line.size(), line_bytes_max));
    line += '\n';
    // One write a line, so that lines of two threads do not mix.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace tessel::console
