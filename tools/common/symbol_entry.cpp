#include "common/symbol_entry.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace tessel::common {

namespace {

constexpr std::size_t quoted_bytes_max = 40;
constexpr std::size_t symbol_bytes_max = 11;  // the width of the wire's long symbol field
constexpr double price_min = 0.01;
// A price in millionths of a dollar, and sums of a few of them, must fit into 64 bits.
constexpr double price_max = 1e9;

std::string in_quotes(std::string_view text) {
    std::string shown(text.substr(0, quoted_bytes_max));
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char letter) { return letter < ' ' || letter > '~'; }, '?');
    return "'" + shown + (text.size() > quoted_bytes_max ? "...'" : "'");
}

std::string price_error(std::string_view price) {
    double value = 0;
    const char* const end = price.data() + price.size();
    const std::from_chars_result read = std::from_chars(price.data(), end, value);
    if (price.empty() || read.ptr != end || read.ec == std::errc::invalid_argument) {
        return in_quotes(price) + " is no number";
    }
    // Written so that "nan" is refused, too.
    if (read.ec != std::errc() || !(value >= price_min && value <= price_max)) {
        return in_quotes(price) + " is out of range: 0.01 to 1000000000";
    }
    return "";
}

}  // namespace

std::string_view symbol_of(std::string_view entry) {
    return entry.substr(0, entry.find(':'));
}

std::string symbol_error(std::string_view entry) {
    const std::string_view symbol = symbol_of(entry);
    const auto allowed = [](char letter) {
        return letter > ' ' && letter <= '~' && letter != ',' && letter != '"' && letter != '\\';
    };
    if (symbol.empty() || symbol.size() > symbol_bytes_max ||
        !std::all_of(symbol.begin(), symbol.end(), allowed)) {
        return in_quotes(entry) +
               " has no good symbol: 1 to 11 printable characters without blank, comma, quote, backslash";
    }
    if (symbol.size() == entry.size()) {
        return "";
    }
    const std::string error = price_error(entry.substr(symbol.size() + 1));
    return error.empty() ? "" : "price of " + std::string(symbol) + ": " + error;
}

}  // namespace tessel::common
