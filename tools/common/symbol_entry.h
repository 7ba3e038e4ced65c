#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// One symbol of a list of symbols, "AAPL:190.00", as a user's program checks it. The feed itself takes more:
// a price of nothing, half a number.
namespace tessel::common {

// What is wrong with "AAPL:190.00" or "AAPL"; empty when nothing is.
std::string symbol_error(std::string_view entry);

// The symbol of such an entry.
std::string_view symbol_of(std::string_view entry);

// One argument of a command line, or NAME=VALUE of the environment, is at most this long; the kernel's limit
// (MAX_ARG_STRLEN: 32 pages) counts the NUL at its end. A feed gets all symbols in one argument.
constexpr std::size_t argument_bytes_max = 128 * 1024 - 1;

// The security id on the wire has 16 bits and begins with 1.
constexpr std::size_t symbols_max = 65'535;

}  // namespace tessel::common
