#include "common/duration.h"

namespace tessel::common {

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t ns_per_second = 1'000 * ns_per_ms;
constexpr std::int64_t ns_per_minute = 60 * ns_per_second;
constexpr std::int64_t ns_per_hour = 60 * ns_per_minute;
constexpr std::size_t quoted_bytes_max = 40;

bool is_digit(char letter) {
    return letter >= '0' && letter <= '9';
}

// A decimal number on its way to nanoseconds: the digits before the point, and those after it unchanged.
struct Decimal {
    std::int64_t whole = 0;
    std::string_view decimals;
};

// Takes "12", "12.5" or ".5" off the front. False when there is no digit, or more of them than any duration
// has.
bool take_decimal(std::string_view& text, Decimal& number) {
    std::size_t digits = 0;
    number = {};
    while (!text.empty() && is_digit(text.front())) {
        if (number.whole > duration_max_ns) {
            return false;
        }
        number.whole = number.whole * 10 + (text.front() - '0');
        text.remove_prefix(1);
        ++digits;
    }
    if (!text.empty() && text.front() == '.') {
        text.remove_prefix(1);
        std::size_t length = 0;
        while (length < text.size() && is_digit(text[length])) {
            ++length;
        }
        number.decimals = text.substr(0, length);
        text.remove_prefix(length);
        digits += length;
    }
    return digits > 0;
}

// Takes the unit off the front; a bare number, which is seconds, has none and must be the whole text.
std::int64_t take_unit(std::string_view& text, bool whole_text) {
    const auto take = [&text](std::string_view unit) {
        if (!text.starts_with(unit)) {
            return false;
        }
        text.remove_prefix(unit.size());
        return true;
    };
    if (text.empty()) {
        return whole_text ? ns_per_second : 0;
    }
    if (take("ms")) {
        return ns_per_ms;
    }
    if (take("h")) {
        return ns_per_hour;
    }
    if (take("m")) {
        return ns_per_minute;
    }
    return take("s") ? ns_per_second : 0;
}

// What the decimals are worth, cut to the nanosecond. Twelve of them exhaust an hour's nanoseconds (3.6e12).
std::int64_t decimals_ns(std::string_view decimals, std::int64_t unit_ns) {
    std::int64_t numerator = 0;
    std::int64_t denominator = 1;
    for (const char digit : decimals.substr(0, 6)) {
        numerator = numerator * 10 + (digit - '0');
        denominator *= 10;
    }
    std::int64_t ns = numerator * (unit_ns / denominator);  // a unit is a multiple of a million nanoseconds
    if (decimals.size() > 6) {
        std::int64_t rest = 0;
        std::int64_t rest_denominator = 1;
        for (const char digit : decimals.substr(6, 7)) {
            rest = rest * 10 + (digit - '0');
            rest_denominator *= 10;
        }
        ns += rest * (unit_ns / denominator) / rest_denominator;
    }
    return ns;
}

}  // namespace

bool parse_duration(std::string_view text, std::int64_t& ns, std::string& error) {
    const std::string quoted = "'" + std::string(text.substr(0, quoted_bytes_max)) + "'";
    error = quoted + " is no duration: write a sum such as 6h30m, 1.5s or 250ms, or a number of seconds";
    std::int64_t sum = 0;
    bool first = true;
    if (text.empty()) {
        return false;
    }
    while (!text.empty()) {
        Decimal number;
        if (!take_decimal(text, number)) {
            return false;
        }
        const std::int64_t unit_ns = take_unit(text, first);
        if (unit_ns == 0) {
            return false;
        }
        first = false;
        if (number.whole > duration_max_ns / unit_ns) {
            error = quoted + " is too long a duration: at most ten years";
            return false;
        }
        sum += number.whole * unit_ns + decimals_ns(number.decimals, unit_ns);
        if (sum > duration_max_ns) {
            error = quoted + " is too long a duration: at most ten years";
            return false;
        }
    }
    ns = sum;
    error.clear();
    return true;
}

std::string duration_text(std::int64_t ns) {
    std::string text;
    const auto take = [&ns, &text](std::int64_t unit_ns, const char* unit) {
        if (ns >= unit_ns) {
            text += std::to_string(ns / unit_ns) + unit;
            ns %= unit_ns;
        }
    };
    take(ns_per_hour, "h");
    take(ns_per_minute, "m");
    if (ns == 0 && !text.empty()) {
        return text;
    }
    std::string decimals = std::to_string(ns_per_second + ns % ns_per_second).substr(1);
    decimals.erase(decimals.find_last_not_of('0') + 1);
    text += std::to_string(ns / ns_per_second) + (decimals.empty() ? "" : "." + decimals) + "s";
    return text;
}

}  // namespace tessel::common
