#pragma once

#include "base/byte_order.h"
#include "market/constants.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

// Room that any of these needs at most.
constexpr int text_number_bytes_max = 32;

inline char* put_char(char* out, char letter) {
    *out = letter;
    return out + 1;
}

inline char* put_text(char* out, std::string_view text) {
    if (!text.empty()) {  // an empty one may have no address
        __builtin_memcpy(out, text.data(), text.size());
    }
    return out + text.size();
}

// Each writes at out and returns the end; no terminating NUL. Bytes after the end may be overwritten, so
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
    const std::uint64_t lots = shares / round_lot;
    if (lots >= lots_texts.size() || lots * round_lot != shares) [[unlikely]] {
        return put_unsigned(out, shares);
    }
    __builtin_memcpy(out, lots_texts[lots].text.data(), sizeof(LotsText::text));
    return out + lots_texts[lots].length;
}

// A text of at most seven bytes, first byte lowest, with its length in the highest one: a copy is one store
// of eight bytes, of which the next text overwrites what is too much.
using PackedText = std::uint64_t;

constexpr PackedText append_letter(PackedText text, char letter) {
    const std::uint64_t length = text >> 56;
    return (text | static_cast<std::uint64_t>(static_cast<unsigned char>(letter)) << (8 * length)) +
           (std::uint64_t{1} << 56);
}

inline char* put_packed_text(char* out, PackedText text) {
    const PackedText ordered = little_endian(text);
    __builtin_memcpy(out, &ordered, sizeof ordered);
    return out + (text >> 56);
}

// "0." to "999.": what most prices begin with.
constexpr std::array<PackedText, 1000> make_dollars_texts() {
    std::array<PackedText, 1000> texts{};
    for (std::size_t at = 0; at < texts.size(); ++at) {
        for (std::size_t scale = 100; scale != 0; scale /= 10) {
            if (at >= scale || scale == 1) {
                texts[at] = append_letter(texts[at], static_cast<char>('0' + at / scale % 10));
            }
        }
        texts[at] = append_letter(texts[at], '.');
    }
    return texts;
}

// "0000," "0100," to "9900,": the four decimals of each number of cents, and a comma.
constexpr std::array<PackedText, 100> make_cents_texts() {
    std::array<PackedText, 100> texts{};
    for (std::size_t at = 0; at < texts.size(); ++at) {
        for (const char letter :
             {static_cast<char>('0' + at / 10), static_cast<char>('0' + at % 10), '0', '0', ','}) {
            texts[at] = append_letter(texts[at], letter);
        }
    }
    return texts;
}

inline constexpr std::array<PackedText, 1000> dollars_texts = make_dollars_texts();
constexpr std::ptrdiff_t cents_text_bytes = 5;
inline constexpr std::array<PackedText, 100> cents_texts = make_cents_texts();

// As put_cents4, for prices of any size.
char* put_large_cents4(char* out, std::uint64_t cents);

// A price in cents as dollars with four decimals and a comma: 19001 is "190.0100,".
inline char* put_cents4(char* out, std::uint64_t cents) {
    if (cents >= 100 * dollars_texts.size()) [[unlikely]] {
        return put_large_cents4(out, cents);
    }
    // In 32 bits a division by a constant is a multiplication and a shift.
    const auto whole = static_cast<std::uint32_t>(cents);
    const std::uint32_t dollars = whole / 100;
    out = put_packed_text(out, dollars_texts[dollars]);
    put_packed_text(out, cents_texts[whole - dollars * 100]);
    return out + cents_text_bytes;  // known without a look at the text
}

// A price in millionths, whole cents, as dollars with four decimals: 190010000 is "190.0100".
char* put_price4(char* out, std::int64_t price);

// A price in millionths as dollars with up to six significant digits, no trailing zeros: "190.01", "1234.57",
// "0". What an output stream prints by default.
char* put_price_general(char* out, std::int64_t price);

}  // namespace tessel
