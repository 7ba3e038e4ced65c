#pragma once

#include "base/byte_order.h"
#include "wire/layout.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tessel {

// The header that every message begins with.
constexpr std::size_t common_header_bytes = layout::bytes_of(layout::header_fields);

struct MessageHeader {
    char version = '1';
    char category = ' ';
    char type = ' ';
    char market_center = ' ';            // 'E' on messages that the SIP itself makes
    char sub_market_center = ' ';        // sub-market center
    std::uint64_t sip_time = 0;          // wall-clock ns: when the message was built
    std::uint64_t participant_time = 0;  // wall-clock ns: the participant's event
    std::uint64_t participant_token = 0;
};

// A growable byte buffer in which one message is built; kept and used again for the next, so that a message
// in the steady state allocates nothing.
struct MessageWriter {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size = 0;
    std::size_t capacity = 0;
};

// Starts a message: the header, and room for a body of body_size bytes, every one of which the builder then
// writes.
void begin_message(MessageWriter& writer, const MessageHeader& header, std::size_t body_size);

// The puts write at an offset from the start of the message, which begin_message has made room for;
// integers are big-endian. They take the message's first byte, which a builder reads from its writer once:
// a byte may alias anything, so after each put through the writer the compiler would have to read it again.
// Inline, because a quote makes some twenty.
inline void put_u8(unsigned char* message, std::size_t offset, char value) {
    message[offset] = static_cast<unsigned char>(value);
}

inline void put_u16(unsigned char* message, std::size_t offset, std::uint16_t value) {
    const std::uint16_t ordered = big_endian(value);
    __builtin_memcpy(message + offset, &ordered, sizeof ordered);
}

inline void put_u32(unsigned char* message, std::size_t offset, std::uint32_t value) {
    const std::uint32_t ordered = big_endian(value);
    __builtin_memcpy(message + offset, &ordered, sizeof ordered);
}

inline void put_u64(unsigned char* message, std::size_t offset, std::uint64_t value) {
    const std::uint64_t ordered = big_endian(value);
    __builtin_memcpy(message + offset, &ordered, sizeof ordered);
}

// Whole cents of a price in millionths (truncated), low 16 bits.
inline void put_price_short(unsigned char* message, std::size_t offset, std::int64_t price) {
    put_u16(message, offset, static_cast<std::uint16_t>(price / 10000));
}

inline void put_price_long(unsigned char* message, std::size_t offset, std::int64_t price) {
    put_u64(message, offset, static_cast<std::uint64_t>(price));
}

// Sizes in shares, low 16 bits; the long form has 32.
inline void put_size_short(unsigned char* message, std::size_t offset, std::uint32_t size) {
    put_u16(message, offset, static_cast<std::uint16_t>(size));
}

inline void put_size_long(unsigned char* message, std::size_t offset, std::uint32_t size) {
    put_u32(message, offset, size);
}

// The first width bytes of text, padded with blanks; longer text is cut. Symbols take 5 bytes in short forms
// and 11 in long ones, MPIDs 4. A text that fills its field, as the market's padded symbols do, is one copy
// of a constant width.
inline void put_alpha(unsigned char* message, std::size_t offset, std::string_view text, std::size_t width) {
    unsigned char* const out = message + offset;
    if (text.size() >= width) {
        __builtin_memcpy(out, text.data(), width);
        return;
    }
    __builtin_memset(out, ' ', width);
    if (!text.empty()) {
        __builtin_memcpy(out, text.data(), text.size());
    }
}

// The common header at the start of a message.
inline void put_header(unsigned char* message, const MessageHeader& header) {
    static_assert(21 + 8 == common_header_bytes);
    put_u8(message, 0, header.version);
    put_u8(message, 1, header.category);
    put_u8(message, 2, header.type);
    put_u8(message, 3, header.market_center);
    put_u8(message, 4, header.sub_market_center);
    put_u64(message, 5, header.sip_time);
    put_u64(message, 13, header.participant_time);
    put_u64(message, 21, header.participant_token);
}

}  // namespace tessel
