#pragma once

#include "base/byte_order.h"

#include <cstddef>
#include <cstdint>

namespace tessel {

// The downstream packet's header, which a request for retransmission has too:
//    0 10  session, padded with blanks
//   10  8  sequence number of the first message
//   18  2  message count
constexpr std::size_t mold_session_bytes = 10;
constexpr std::size_t mold_sequence_at = 10;
constexpr std::size_t mold_count_at = 18;
constexpr std::size_t mold_header_bytes = 20;
constexpr std::uint16_t mold_end_of_session_count = 0xffff;

constexpr std::size_t block_prefix_bytes = 2;  // the big-endian length before each message

// session points to mold_session_bytes characters; out has room for the header.
inline void put_mold_header(unsigned char* out, const char* session, std::uint64_t sequence,
                            std::uint64_t count) {
    __builtin_memcpy(out, session, mold_session_bytes);
    write_big_endian(out + mold_sequence_at, sequence, 8);
    write_big_endian(out + mold_count_at, count, 2);
}

inline std::uint64_t mold_sequence(const unsigned char* packet) {
    return read_big_endian(packet + mold_sequence_at, 8);
}

inline std::size_t mold_count(const unsigned char* packet) {
    return static_cast<std::size_t>(read_big_endian(packet + mold_count_at, 2));
}

// Writes one MoldUDP64 message block: the 2-byte big-endian length, then the message (at most 65,535 bytes).
// out has room for length + 2 bytes. Every message is written twice (open packet and history) and has 29 to
// some 150 bytes, so the copy goes in 32-byte steps with an overlapping last one instead of through a library
// call.
inline void write_block(unsigned char* out, const unsigned char* message, std::size_t length) {
    constexpr std::size_t step = 32;
    constexpr std::size_t short_max = 256;
    struct Step {
        unsigned char bytes[step];
    };
    out[0] = static_cast<unsigned char>(length >> 8);
    out[1] = static_cast<unsigned char>(length);
    out += block_prefix_bytes;
    if (length < step || length > short_max) [[unlikely]] {
        if (length > 0) {
            __builtin_memcpy(out, message, length);
        }
        return;
    }
    Step moved;
    for (std::size_t at = 0; at + step < length; at += step) {
        __builtin_memcpy(&moved, message + at, step);
        __builtin_memcpy(out + at, &moved, step);
    }
    __builtin_memcpy(&moved, message + length - step, step);
    __builtin_memcpy(out + length - step, &moved, step);
}

}  // namespace tessel
