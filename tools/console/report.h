#pragma once

#include <string_view>

namespace tessel::console {

// One line on standard error, at most 200 bytes, that begins with the program's name. May be called by every
// thread.
void report(std::string_view text);

}  // namespace tessel::console
