#include "capture/start_time.h"

namespace tessel::capture {

namespace {

constexpr std::int64_t second_ns = 1'000'000'000;

bool take_char(std::string_view& text, char upper) {
    if (text.empty() || (text[0] != upper && text[0] != upper + ('a' - 'A'))) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

bool take_mark(std::string_view& text, char mark) {
    if (text.empty() || text[0] != mark) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// Exactly `digits` decimal digits.
bool take_number(std::string_view& text, std::size_t digits, std::int64_t& value) {
    if (text.size() < digits) {
        return false;
    }
    value = 0;
    for (std::size_t at = 0; at < digits; ++at) {
        if (text[at] < '0' || text[at] > '9') {
            return false;
        }
        value = value * 10 + (text[at] - '0');
    }
    text.remove_prefix(digits);
    return true;
}

// Days since 1970-01-01 in the Gregorian calendar, counted in years that begin in March.
std::int64_t days_since_epoch(std::int64_t year, std::int64_t month, std::int64_t day) {
    const std::int64_t shifted = month <= 2 ? year - 1 : year;
    const std::int64_t era_year = shifted % 400;
    const std::int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t day_of_era = era_year * 365 + era_year / 4 - era_year / 100 + day_of_year;
    return shifted / 400 * 146'097 + day_of_era - 719'468;
}

std::int64_t days_of_month(std::int64_t year, std::int64_t month) {
    if (month == 2) {
        return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 29 : 28;
    }
    return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

bool take_fraction(std::string_view& text, std::int64_t& ns) {
    ns = 0;
    if (!take_mark(text, '.')) {
        return true;
    }
    std::int64_t unit = second_ns / 10;
    std::int64_t digit = 0;
    if (!take_number(text, 1, digit)) {
        return false;
    }
    do {
        ns += digit * unit;
        unit /= 10;
    } while (take_number(text, 1, digit));
    return true;
}

// "Z" or "+05:00", in seconds east.
bool take_offset(std::string_view& text, std::int64_t& seconds) {
    seconds = 0;
    if (take_char(text, 'Z')) {
        return true;
    }
    const bool west = take_mark(text, '-');
    std::int64_t hours = 0;
    std::int64_t minutes = 0;
    if ((!west && !take_mark(text, '+')) || !take_number(text, 2, hours) || !take_mark(text, ':') ||
        !take_number(text, 2, minutes) || hours > 23 || minutes > 59) {
        return false;
    }
    seconds = (hours * 60 + minutes) * 60 * (west ? -1 : 1);
    return true;
}

}  // namespace

bool parse_start_time(std::string_view text, std::int64_t& ns, std::string& error) {
    const std::string whole = "'" + std::string(text.substr(0, 40)) + "'";
    std::int64_t year = 0;
    std::int64_t month = 0;
    std::int64_t day = 0;
    std::int64_t hour = 0;
    std::int64_t minute = 0;
    std::int64_t second = 0;
    std::int64_t fraction_ns = 0;
    std::int64_t offset_seconds = 0;
    const bool well_formed =
        take_number(text, 4, year) && take_mark(text, '-') && take_number(text, 2, month) &&
        take_mark(text, '-') && take_number(text, 2, day) && take_char(text, 'T') &&
        take_number(text, 2, hour) && take_mark(text, ':') && take_number(text, 2, minute) &&
        take_mark(text, ':') && take_number(text, 2, second) && take_fraction(text, fraction_ns) &&
        take_offset(text, offset_seconds) && text.empty();
    if (!well_formed) {
        error = whole + " is no time such as 2026-01-05T09:30:00-05:00 (with an offset, or Z)";
        return false;
    }
    if (month < 1 || month > 12 || day < 1 || day > days_of_month(year, month) || hour > 23 || minute > 59 ||
        second > 59) {
        error = whole + " does not exist";
        return false;
    }
    const std::int64_t seconds =
        ((days_since_epoch(year, month, day) * 24 + hour) * 60 + minute) * 60 + second - offset_seconds;
    if (seconds < 0 || seconds >= time_end_ns / second_ns) {
        error = whole + " is not between 1970 and 2106-02-07, which a capture file can hold";
        return false;
    }
    ns = seconds * second_ns + fraction_ns;
    return true;
}

}  // namespace tessel::capture
