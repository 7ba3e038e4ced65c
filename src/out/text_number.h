#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// Room that any of these needs at most.
constexpr int text_number_bytes_max = 32;

// Each writes at out and returns the end; nothing is terminated. Bytes behind the end may be overwritten, so
// there must always be room for text_number_bytes_max.
char* put_unsigned(char* out, std::uint64_t value);
char* put_signed(char* out, std::int64_t value);

// Whole round lots below 10,000 shares, "0" and "100" to "9900", each with its length.
struct LotsText {
    std::array<char, 4> text{};
    std::uint32_t length = 0;
};

constexpr std::array<LotsText, 100> make_lots_texts() {
    std::array<LotsText, 100> texts{};
    for (std::size_t at = 0; at < texts.size(); ++at) {
        const auto tens = static_cast<char>('0' + at / 10);
        const auto ones = static_cast<char>('0' + at % 10);
        texts[at] = at >= 10 ? LotsText{{tens, ones, '0', '0'}, 4} : LotsText{{ones, '0', '0', '0'}, 3};
    }
    texts[0].length = 1;
    return texts;
}

inline constexpr std::array<LotsText, 100> lots_texts = make_lots_texts();

// The same text as put_unsigned's, in fewer steps for what sizes mostly are: whole round lots below 10,000.
inline char* put_shares(char* out, std::uint64_t shares) {
    constexpr std::uint64_t round_lot = 100;
    const std::uint64_t lots = shares / round_lot;
    if (lots >= lots_texts.size() || lots * round_lot != shares) [[unlikely]] {
        return put_unsigned(out, shares);
    }
    __builtin_memcpy(out, lots_texts[lots].text.data(), sizeof(LotsText::text));
    return out + lots_texts[lots].length;
}

// A price in millionths, whole cents, as dollars with four decimals: 190010000 is "190.0100".
char* put_price4(char* out, std::int64_t price);

// The same for many prices in a row, which mostly have their dollars in common: their text is kept from price
// to price.
struct DollarText {
    std::uint64_t first = std::uint64_t{1} << 63;  // the lowest price with this text; out of reach: none yet
    std::size_t length = 0;
    std::array<char, 16> text{};  // dollars and point
};

// Keeps the text of a price of 0 or more.
void keep_dollars(DollarText& kept, std::int64_t price);

// "0000", "0100" to "9900": the four decimals of each number of cents.
using CentsText = std::array<char, 4>;

constexpr std::array<CentsText, 100> make_cents_texts() {
    std::array<CentsText, 100> texts{};
    for (std::size_t at = 0; at < texts.size(); ++at) {
        texts[at] = {static_cast<char>('0' + at / 10), static_cast<char>('0' + at % 10), '0', '0'};
    }
    return texts;
}

inline constexpr std::array<CentsText, 100> cents_texts = make_cents_texts();

inline char* put_price4(char* out, std::int64_t price, DollarText& kept) {
    constexpr std::uint64_t millionths_per_cent = 10'000;
    constexpr std::uint64_t millionths_per_dollar = 1'000'000;
    // A price below the text's, a negative one too, turns into a very large rest.
    std::uint64_t rest = static_cast<std::uint64_t>(price) - kept.first;
    if (rest >= millionths_per_dollar) [[unlikely]] {
        if (price < 0) {
            return put_price4(out, price);
        }
        keep_dollars(kept, price);
        rest = static_cast<std::uint64_t>(price) - kept.first;
    }
    // All of it, always: a copy of a constant size is two instructions.
    __builtin_memcpy(out, kept.text.data(), kept.text.size());
    out += kept.length;
    __builtin_memcpy(out, cents_texts[rest / millionths_per_cent].data(), sizeof(CentsText));
    return out + sizeof(CentsText);
}

// A price in millionths as dollars with up to six significant digits, no trailing zeros: "190.01", "1234.57",
// "0". What an output stream prints by default.
char* put_price_general(char* out, std::int64_t price);

}  // namespace tessel
