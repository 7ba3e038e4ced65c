#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace tessel {

// The value as its bytes are laid out most significant first, on any machine; the other way round the same.
constexpr std::uint16_t big_endian(std::uint16_t value) {
    return std::endian::native == std::endian::big ? value : __builtin_bswap16(value);
}
constexpr std::uint32_t big_endian(std::uint32_t value) {
    return std::endian::native == std::endian::big ? value : __builtin_bswap32(value);
}
constexpr std::uint64_t big_endian(std::uint64_t value) {
    return std::endian::native == std::endian::big ? value : __builtin_bswap64(value);
}

// Likewise least significant first.
constexpr std::uint16_t little_endian(std::uint16_t value) {
    return std::endian::native == std::endian::little ? value : __builtin_bswap16(value);
}
constexpr std::uint32_t little_endian(std::uint32_t value) {
    return std::endian::native == std::endian::little ? value : __builtin_bswap32(value);
}
constexpr std::uint64_t little_endian(std::uint64_t value) {
    return std::endian::native == std::endian::little ? value : __builtin_bswap64(value);
}

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

}  // namespace tessel
