#pragma once

#include <cstddef>
#include <cstdint>

namespace tessel {

constexpr std::size_t mold_header_bytes = 20;  // session 10, sequence 8, message count 2
constexpr std::size_t mold_session_bytes = 10;
constexpr std::uint16_t mold_end_of_session_count = 0xffff;
constexpr std::size_t block_prefix_bytes = 2;  // the big-endian length before each message

// The width low bytes of value, most significant first; width is at most 8.
inline void write_big_endian(unsigned char* out, std::uint64_t value, std::size_t width) {
    for (std::size_t at = 0; at < width; ++at) {
        out[at] = static_cast<unsigned char>(value >> (8 * (width - 1 - at)));
    }
}

inline std::uint64_t read_big_endian(const unsigned char* in, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t at = 0; at < width; ++at) {
        value = value << 8 | in[at];
    }
    return value;
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
