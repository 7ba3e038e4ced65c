#include "ctl/feed_probe.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::ctl {
namespace {

using namespace std::string_literals;

// A packet of session UTPBENCH01 with this sequence number, count and blocks.
std::string packet(unsigned char sequence, const std::string& count, const std::string& blocks) {
    return "UTPBENCH01" + std::string(7, '\0') + std::string(1, static_cast<char>(sequence)) + count + blocks;
}

struct Read {
    bool good = false;
    std::uint64_t sequence = 0;
    std::uint16_t count = 0;
};

Read read(const std::string& bytes) {
    Read result;
    result.good = parse_mold_packet(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                                    result.sequence, result.count);
    return result;
}

TEST(FeedProbe, WellFormedPackets_AreCounted) {
    const Read two = read(packet(7, "\0\2"s, "\0\3abc\0\1d"s));
    EXPECT_TRUE(two.good);
    EXPECT_EQ(two.sequence, 7U);
    EXPECT_EQ(two.count, 2U);
    EXPECT_TRUE(read(packet(7, "\0\0"s, "")).good);
    EXPECT_TRUE(read(packet(7, "\xff\xff"s, "")).good);
}

TEST(FeedProbe, AnythingElse_IsNoPacketOfAFeed) {
    EXPECT_FALSE(read("").good);
    EXPECT_FALSE(read(packet(7, "\0\0"s, "").substr(1)).good);
    EXPECT_FALSE(read(packet(7, "\0\1"s, "")).good);
    EXPECT_FALSE(read(packet(7, "\0\1"s, "\0\3ab"s)).good);
    EXPECT_FALSE(read(packet(7, "\0\1"s, "\0\3abcd"s)).good);
    EXPECT_FALSE(read(packet(7, "\0\0"s, "x")).good);
    EXPECT_FALSE(read(packet(7, "\0\2"s, "\0\3abc\0"s)).good);
}

}  // namespace
}  // namespace tessel::ctl
