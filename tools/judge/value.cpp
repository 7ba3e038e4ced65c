#include "judge/value.h"

#include "judge/line_reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tessel::judge {

namespace {

constexpr std::size_t symbol_letters_max = 11;
constexpr std::uint64_t mwcb_level_max = 3;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

void skip_blanks(std::string_view& text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) {
        text.remove_prefix(1);
    }
}

// The digits of a number as written, point and exponent taken out: the value is 0.DIGITS times 10^point.
struct Digits {
    std::string_view whole;
    std::string_view fraction;
    long point = 0;

    // Digit `index` of whole and fraction together, 0 outside.
    [[nodiscard]] unsigned at(long index) const {
        const auto whole_size = static_cast<long>(whole.size());
        const auto size = whole_size + static_cast<long>(fraction.size());
        if (index < 0 || index >= size) {
            return 0;
        }
        const char c = index < whole_size ? whole[static_cast<std::size_t>(index)]
                                          : fraction[static_cast<std::size_t>(index - whole_size)];
        return static_cast<unsigned>(c - '0');
    }
};

std::string_view take_digits(std::string_view& text) {
    std::size_t size = 0;
    while (size != text.size() && is_digit(text[size])) {
        ++size;
    }
    const std::string_view digits = text.substr(0, size);
    text.remove_prefix(size);
    return digits;
}

// The exponent after 'e', held to a range far outside any number that can be kept.
long take_exponent(std::string_view& text) {
    constexpr long limit = 1'000'000'000;
    if (text.empty() || (text.front() != 'e' && text.front() != 'E')) {
        return 0;
    }
    text.remove_prefix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    long exponent = 0;
    for (const char c : take_digits(text)) {
        exponent = std::min(limit, exponent * 10 + (c - '0'));
    }
    return negative ? -exponent : exponent;
}

// Adds one digit to a number; false when it no longer fits 64 bits.
bool push_digit(std::uint64_t& number, unsigned digit) {
    if (number > (UINT64_MAX - digit) / 10) {
        return false;
    }
    number = number * 10 + digit;
    return true;
}

// A price in a stream's default format: six significant digits.
std::string six_digits(std::string_view number) {
    std::array<char, 48> printed{};
    std::snprintf(printed.data(), printed.size(), "%g", std::strtod(std::string(number).c_str(), nullptr));
    return printed.data();
}

bool continues_number(char c) {
    return is_digit(c) || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E';
}

// Takes the number at the start of both texts off the front when they are the same but for zeros after the
// decimals of one (the truth's 190.0100 and a handler's 190.01): most are, and need no arithmetic.
bool take_alike(std::string_view& truth, std::string_view& output) {
    const std::size_t common_most = std::min(truth.size(), output.size());
    std::size_t common = 0;
    bool decimals = false;
    while (common != common_most && truth[common] == output[common] && continues_number(truth[common])) {
        decimals = truth[common] == '.' || (decimals && is_digit(truth[common]));
        ++common;
    }
    const auto zeros_after = [&](std::string_view text) {
        std::size_t place = common;
        while (place != text.size() && text[place] == '0') {
            ++place;
        }
        return place;
    };
    const std::size_t truth_end = decimals ? zeros_after(truth) : common;
    const std::size_t output_end = decimals ? zeros_after(output) : common;
    if ((truth_end != truth.size() && continues_number(truth[truth_end])) ||
        (output_end != output.size() && continues_number(output[output_end]))) {
        return false;
    }
    truth.remove_prefix(truth_end);
    output.remove_prefix(output_end);
    return true;
}

bool same_number(std::size_t member, bool first, std::string_view& truth, std::string_view& output) {
    if (take_alike(truth, output)) {
        return true;
    }
    const std::string_view truth_start = truth;
    const std::string_view output_start = output;
    Number expected;
    Number got;
    if (!take_number(truth, expected) || !take_number(output, got)) {
        return false;
    }
    if (expected == got) {
        return true;
    }
    if (member == static_cast<std::size_t>(Member::asof) && first) {
        return six_digits(truth_start.substr(0, truth_start.size() - truth.size())) ==
               six_digits(output_start.substr(0, output_start.size() - output.size()));
    }
    return member == static_cast<std::size_t>(Member::mwcb) && !expected.negative &&
           expected.whole > mwcb_level_max && got == Number{false, mwcb_level_max, 0};
}

// Takes a string with its quotes off the front; escapes are kept unchanged.
std::string_view take_string(std::string_view& text) {
    std::size_t size = 1;
    while (size < text.size() && text[size] != '"') {
        size += text[size] == '\\' ? 2 : 1;
    }
    size = std::min(size + 1, text.size());
    const std::string_view taken = text.substr(0, size);
    text.remove_prefix(size);
    return taken;
}

bool same_string(std::size_t member, std::string_view truth, std::string_view output) {
    if (truth == output) {
        return true;
    }
    return member == static_cast<std::size_t>(Member::symbol) && truth.size() > symbol_letters_max + 2 &&
           output.size() == symbol_letters_max + 2 &&
           truth.substr(0, symbol_letters_max + 1) == output.substr(0, symbol_letters_max + 1);
}

bool starts_number(std::string_view text) {
    return !text.empty() && (text.front() == '-' || is_digit(text.front()));
}

}  // namespace

bool take_number(std::string_view& text, Number& out) {
    out = Number{};
    if (!text.empty() && text.front() == '-') {
        out.negative = true;
        text.remove_prefix(1);
    }
    Digits digits;
    digits.whole = take_digits(text);
    if (digits.whole.empty()) {
        return false;
    }
    if (!text.empty() && text.front() == '.') {
        text.remove_prefix(1);
        digits.fraction = take_digits(text);
    }
    digits.point = static_cast<long>(digits.whole.size()) + take_exponent(text);

    // Leading zeros cost nothing: start at the first digit that counts.
    long index = 0;
    const auto size = static_cast<long>(digits.whole.size() + digits.fraction.size());
    while (index < size && digits.at(index) == 0) {
        ++index;
    }
    if (index == size) {
        out.negative = false;
        return true;
    }
    for (; index < digits.point; ++index) {
        if (!push_digit(out.whole, digits.at(index))) {
            return false;
        }
    }
    for (long decimal = 0; decimal < 6; ++decimal) {
        out.millionths = out.millionths * 10 + digits.at(digits.point + decimal);
    }
    if (digits.at(digits.point + 6) >= 5 && ++out.millionths == 1'000'000) {
        out.millionths = 0;
        if (out.whole == UINT64_MAX) {
            return false;
        }
        ++out.whole;
    }
    out.negative = out.negative && (out.whole != 0 || out.millionths != 0);
    return true;
}

bool same_value(std::size_t member, std::string_view truth, std::string_view output) {
    if (truth == output) {
        return true;
    }
    bool first = true;  // the first scalar of the member
    while (true) {
        skip_blanks(truth);
        skip_blanks(output);
        if (truth.empty() || output.empty()) {
            return truth.empty() && output.empty();
        }
        if (starts_number(truth) && starts_number(output)) {
            if (!same_number(member, first, truth, output)) {
                return false;
            }
            first = false;
        } else if (truth.front() == '"' && output.front() == '"') {
            if (!same_string(member, take_string(truth), take_string(output))) {
                return false;
            }
            first = false;
        } else {
            if (truth.front() != output.front()) {
                return false;
            }
            truth.remove_prefix(1);
            output.remove_prefix(1);
        }
    }
}

}  // namespace tessel::judge
