#include "mold/packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

TEST(MoldBytes, BigEndian_WrittenAndReadInEveryWidth) {
    unsigned char bytes[8] = {};
    write_big_endian(bytes, 0x0102030405060708, 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 8), "\x01\x02\x03\x04\x05\x06\x07\x08");
    EXPECT_EQ(read_big_endian(bytes, 8), 0x0102030405060708u);
    EXPECT_EQ(read_big_endian(bytes, 2), 0x0102u);
    write_big_endian(bytes, 0xfffefd, 2);  // the low 16 bits
    EXPECT_EQ(read_big_endian(bytes, 2), 0xfefdu);
    EXPECT_EQ(bytes[2], 3);
}

// The copy goes in steps: every length around the steps' borders, with no byte written beyond the block.
TEST(MoldBytes, Block_EveryLengthUpTo600HasItsPrefixAndNothingBehindIt) {
    std::vector<unsigned char> message(600);
    for (std::size_t at = 0; at < message.size(); ++at) {
        message[at] = static_cast<unsigned char>(at * 7 + 1);
    }
    for (std::size_t length = 0; length <= message.size(); ++length) {
        const std::vector<unsigned char> exact(message.begin(),
                                               message.begin() + static_cast<std::ptrdiff_t>(length));
        std::vector<unsigned char> out(length + 2 + 64, 0xee);
        write_block(out.data(), exact.data(), length);
        std::vector<unsigned char> expected{static_cast<unsigned char>(length / 256),
                                            static_cast<unsigned char>(length % 256)};
        expected.insert(expected.end(), exact.begin(), exact.end());
        expected.insert(expected.end(), 64, 0xee);
        ASSERT_EQ(out, expected) << length;
    }
}

}  // namespace
}  // namespace tessel
