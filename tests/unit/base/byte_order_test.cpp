#include "base/byte_order.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace tessel {
namespace {

template <typename Value>
std::array<unsigned char, sizeof(Value)> bytes_of(Value value) {
    std::array<unsigned char, sizeof(Value)> bytes;
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

TEST(ByteOrder, Values_LieInMemoryAsNamed) {
    EXPECT_EQ(bytes_of(big_endian(std::uint16_t{0x0102})), (std::array<unsigned char, 2>{1, 2}));
    EXPECT_EQ(bytes_of(big_endian(std::uint32_t{0x01020304})), (std::array<unsigned char, 4>{1, 2, 3, 4}));
    EXPECT_EQ(bytes_of(big_endian(std::uint64_t{0x0102030405060708})),
              (std::array<unsigned char, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(bytes_of(little_endian(std::uint16_t{0x0102})), (std::array<unsigned char, 2>{2, 1}));
    EXPECT_EQ(bytes_of(little_endian(std::uint32_t{0x01020304})), (std::array<unsigned char, 4>{4, 3, 2, 1}));
    EXPECT_EQ(bytes_of(little_endian(std::uint64_t{0x0102030405060708})),
              (std::array<unsigned char, 8>{8, 7, 6, 5, 4, 3, 2, 1}));
}

TEST(ByteOrder, WidthsOfBytes_AreWrittenAndReadBack) {
    for (std::size_t width = 1; width <= 8; ++width) {
        std::array<unsigned char, 9> bytes{};
        bytes[width] = 0xee;
        const std::uint64_t value = 0xf1f2f3f4f5f6f7f8u & (~std::uint64_t{0} >> (64 - 8 * width));
        write_big_endian(bytes.data(), value, width);
        EXPECT_EQ(bytes[width - 1], 0xf8);
        EXPECT_EQ(bytes[width], 0xee);
        EXPECT_EQ(read_big_endian(bytes.data(), width), value);
    }
}

}  // namespace
}  // namespace tessel
