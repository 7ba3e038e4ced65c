#include "output/number_text.h"

#include <array>
#include <charconv>
#include <cstring>

namespace tessel {

namespace {

// "00" to "99": two digits a step.
constexpr std::array<char, 200> make_pairs() {
    std::array<char, 200> pairs{};
    for (unsigned at = 0; at < 100; ++at) {
        pairs[2 * at] = static_cast<char>('0' + at / 10);
        pairs[2 * at + 1] = static_cast<char>('0' + at % 10);
    }
    return pairs;
}

constexpr std::array<char, 200> pairs = make_pairs();

std::uint32_t pair_of(std::uint64_t value) {
    std::uint16_t pair;
    std::memcpy(&pair, pairs.data() + 2 * value, sizeof pair);
    return little_endian(pair);
}

char* put_pair(char* out, std::uint64_t value) {
    std::memcpy(out, pairs.data() + 2 * value, 2);
    return out + 2;
}

// Four digits in a register, the leading zeros shifted out: sizes have three digits or four by chance, and a
// branch would be wrong half the time. Four bytes are always written.
char* put_up_to_four(char* out, std::uint64_t value) {
    std::uint32_t digits = pair_of(value / 100) | pair_of(value % 100) << 16;
    const unsigned zeros = (value < 1000 ? 1u : 0u) + (value < 100 ? 1u : 0u) + (value < 10 ? 1u : 0u);
    digits = little_endian(digits >> 8 * zeros);
    std::memcpy(out, &digits, sizeof digits);
    return out + (4 - zeros);
}

// The eight digits of a value below 10^8, the first in the lowest byte. Each step splits all numbers in the
// register at the same time, by a multiplication and a shift that divide exactly in their range: one of eight
// digits into two of four, those into pairs, and the pairs into digits.
std::uint64_t eight_digits(std::uint64_t value) {
    const std::uint64_t high = value / 10'000;
    const std::uint64_t fours = high | (value - high * 10'000) << 32;
    const std::uint64_t hundreds = (fours * 10'486 >> 20) & 0x0000007f'0000007f;
    const std::uint64_t twos = hundreds | (fours - hundreds * 100) << 16;
    const std::uint64_t tens = (twos * 103 >> 10) & 0x000f000f'000f000f;
    return (tens | (twos - tens * 10) << 8) | 0x30303030'30303030;
}

// Without the first `left_out` of the eight; eight bytes are always written.
char* put_eight_digits(char* out, std::uint64_t value, int left_out) {
    const std::uint64_t text = little_endian(eight_digits(value) >> 8 * left_out);
    std::memcpy(out, &text, sizeof text);
    return out + (8 - left_out);
}

constexpr std::uint64_t millionths_per_cent = 10'000;

}  // namespace

char* put_unsigned(char* out, std::uint64_t value) {
    if (value < 10'000) [[likely]] {
        return put_up_to_four(out, value);
    }
    constexpr std::uint64_t eight_digits_end = 100'000'000;
    if (value < eight_digits_end) [[likely]] {
        const int left_out =
            (value < 10'000'000 ? 1 : 0) + (value < 1'000'000 ? 1 : 0) + (value < 100'000 ? 1 : 0);
        return put_eight_digits(out, value, left_out);
    }
    return put_eight_digits(put_unsigned(out, value / eight_digits_end), value % eight_digits_end, 0);
}

char* put_signed(char* out, std::int64_t value) {
    if (value < 0) {
        *out++ = '-';
        return put_unsigned(out, 0 - static_cast<std::uint64_t>(value));
    }
    return put_unsigned(out, static_cast<std::uint64_t>(value));
}

char* put_large_cents4(char* out, std::uint64_t cents) {
    out = put_unsigned(out, cents / 100);
    *out = '.';
    return put_packed_text(out + 1, cents_texts[cents % 100]);
}

char* put_price4(char* out, std::int64_t price) {
    std::uint64_t magnitude = static_cast<std::uint64_t>(price);
    if (price < 0) {
        *out++ = '-';
        magnitude = 0 - magnitude;
    }
    return put_cents4(out, magnitude / millionths_per_cent) - 1;
}

char* put_price_general(char* out, std::int64_t price) {
    // Up to $9,999.99 the six digits hold every cent: the number is written from its integers.
    constexpr std::int64_t exact_below = 10'000'000'000;
    if (price >= 0 && price < exact_below) {
        const auto cents = static_cast<std::uint64_t>(price) / millionths_per_cent;
        out = put_unsigned(out, cents / 100);
        const std::uint64_t rest = cents % 100;
        if (rest != 0) {
            *out = '.';
            put_pair(out + 1, rest);
            out += rest % 10 == 0 ? 2 : 3;
        }
        return out;
    }
    const double dollars = static_cast<double>(price) / 1'000'000.0;
    return std::to_chars(out, out + text_number_bytes_max, dollars, std::chars_format::general, 6).ptr;
}

}  // namespace tessel
