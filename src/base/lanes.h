#pragma once

// Vectors of 16 bytes by the compilers' own extension, with the few operations that the quote index is made
// of. Every processor runs them; where the plain form is not what a compiler makes one instruction of, there
// is a line for SSE2.

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cstddef>
#include <cstdint>

namespace tessel {

typedef float Floats4 __attribute__((vector_size(16)));
typedef std::int32_t Words4 __attribute__((vector_size(16)));  // also what a comparison of four floats gives
typedef std::uint8_t Bytes16 __attribute__((vector_size(16)));
typedef std::uint16_t Pairs8 __attribute__((vector_size(16)));
typedef std::uint32_t UnsignedWords4 __attribute__((vector_size(16)));

// From an address that is a multiple of 16.
[[gnu::always_inline]] inline Floats4 load_floats(const float* floats) {
    Floats4 loaded;
    __builtin_memcpy(&loaded, __builtin_assume_aligned(floats, 16), sizeof loaded);
    return loaded;
}

[[gnu::always_inline]] inline Bytes16 load_bytes(const std::uint8_t* bytes) {
    Bytes16 loaded;
    __builtin_memcpy(&loaded, __builtin_assume_aligned(bytes, 16), sizeof loaded);
    return loaded;
}

[[gnu::always_inline]] inline Floats4 four_of(float value) {
    return Floats4{value, value, value, value};
}

// Lane by lane the higher of the two; no NaN.
[[gnu::always_inline]] inline Floats4 higher(Floats4 left, Floats4 right) {
#if defined(__SSE2__)
    return _mm_max_ps(left, right);
#else
    return left > right ? left : right;
#endif
}

[[gnu::always_inline]] inline Bytes16 higher(Bytes16 left, Bytes16 right) {
    return left > right ? left : right;
}

// Sixteen lanes of all ones or all zeros, as bytes in their order.
[[gnu::always_inline]] inline Bytes16 narrow_masks(Words4 first, Words4 second, Words4 third, Words4 fourth) {
#if defined(__SSE2__)
    return (Bytes16)_mm_packs_epi16(_mm_packs_epi32((__m128i)first, (__m128i)second),
                                    _mm_packs_epi32((__m128i)third, (__m128i)fourth));
#else
    Bytes16 bytes{};
    for (std::size_t at = 0; at < 4; ++at) {
        bytes[at] = static_cast<std::uint8_t>(first[at]);
        bytes[at + 4] = static_cast<std::uint8_t>(second[at]);
        bytes[at + 8] = static_cast<std::uint8_t>(third[at]);
        bytes[at + 12] = static_cast<std::uint8_t>(fourth[at]);
    }
    return bytes;
#endif
}

// The highest bit of each byte, that of the first byte lowest.
[[gnu::always_inline]] inline unsigned byte_bits(Bytes16 bytes) {
#if defined(__SSE2__)
    return static_cast<unsigned>(_mm_movemask_epi8((__m128i)bytes));
#else
    unsigned bits = 0;
    for (std::size_t at = 0; at < sizeof bytes; ++at) {
        bits |= static_cast<unsigned>(bytes[at] >> 7) << at;
    }
    return bits;
#endif
}

}  // namespace tessel
