#include "capture/frames.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace tessel::capture {
namespace {

using Bytes = std::vector<unsigned char>;

const Endpoint host{0xC0A80007, 40'000, {2, 0, 0, 0, 0, 1}};
const Endpoint peer{0x0A000102, 25'179, {2, 0, 0, 0, 0, 2}};

Bytes copied(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string hex(std::span<const unsigned char> bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

// The sum over big-endian words, word by word: 0xffff over anything that holds its own checksum.
std::uint32_t plain_sum(std::span<const unsigned char> bytes, std::uint32_t sum = 0) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        sum += at % 2 == 0 ? bytes[at] * 256u : bytes[at];
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return sum;
}

void expect_right_checksums(const Bytes& frame, std::size_t ip_at) {
    const std::span<const unsigned char> ip = std::span(frame).subspan(ip_at);
    EXPECT_EQ(plain_sum(ip.first(20)), 0xffffu);
    const std::span<const unsigned char> body = ip.subspan(20);
    const auto pseudo = plain_sum(ip.subspan(12, 8), ip[9] + static_cast<std::uint32_t>(body.size()));
    EXPECT_EQ(plain_sum(body, pseudo), 0xffffu);
    EXPECT_EQ(ip[2] * 256u + ip[3], ip.size());
}

TEST(Frames, GroupsAddress_GivesItsLow23Bits) {
    EXPECT_EQ(multicast_mac(0xEFFF19B1), (Mac{0x01, 0x00, 0x5e, 0x7f, 0x19, 0xb1}));
    EXPECT_TRUE(is_multicast(0xE0000001));
    EXPECT_FALSE(is_multicast(0xF0000001));
    EXPECT_FALSE(is_multicast(0x7F000001));
}

TEST(Frames, Udp_IsLaidOutAsOnTheWire) {
    FrameBuilder builder;
    const Endpoint group{0xEFFF19B1, 25'177, multicast_mac(0xEFFF19B1)};
    const unsigned char payload[] = {'a', 'b', 'c'};
    EXPECT_EQ(hex(build_udp(builder, host, group, payload)),
              "01005e7f19b1"
              "020000000001"
              "0800"
              "4500001f000040000111af6e"
              "c0a80007"
              "efff19b1"
              "9c40"
              "6259"
              "000b"
              "727b"
              "616263");
}

TEST(Frames, VlanTag_ComesBeforeTheType) {
    FrameBuilder builder;
    builder.vlan = 4094;
    const Bytes frame = copied(build_udp(builder, host, peer, {}));
    EXPECT_EQ(hex(std::span(frame).subspan(12, 6)), "81000ffe0800");
    expect_right_checksums(frame, 18);
    EXPECT_EQ(frame[18 + 8], 64) << "time to live towards a host";
}

TEST(Frames, ChecksumsAreRightForEveryLength_Seed3) {
    FrameBuilder builder;
    std::mt19937 draw(3);
    Bytes payload;
    for (std::size_t length = 0; length <= 1'500; ++length) {
        expect_right_checksums(copied(build_udp(builder, host, peer, payload)), 14);
        if (length <= tcp_segment_bytes_max) {
            expect_right_checksums(copied(build_tcp(builder, host, peer, static_cast<std::uint32_t>(draw()),
                                                    77, tcp_ack | tcp_push, payload)),
                                   14);
        }
        payload.push_back(static_cast<unsigned char>(draw()));
    }
}

TEST(Frames, UdpChecksumOfZero_IsWrittenAsOnes) {
    FrameBuilder builder;
    // The two bytes make up for everything else in the sum.
    Bytes payload{0, 0};
    const Bytes without = copied(build_udp(builder, host, peer, payload));
    payload = {without[40], without[41]};
    const Bytes frame = copied(build_udp(builder, host, peer, payload));
    EXPECT_EQ(frame[40], 0xff);
    EXPECT_EQ(frame[41], 0xff);
}

TEST(Frames, TcpSyn_CarriesTheSegmentSize) {
    FrameBuilder builder;
    const Bytes frame = copied(build_tcp(builder, host, peer, 1000, 0, tcp_syn, {}));
    ASSERT_EQ(frame.size(), 14u + 20 + 24);
    EXPECT_EQ(hex(std::span(frame).subspan(34, 16)), "9c40625b000003e8000000006002ffff");
    EXPECT_EQ(hex(std::span(frame).subspan(54)), "020405b4");
    expect_right_checksums(frame, 14);
    EXPECT_EQ(build_tcp(builder, host, peer, 1, 2, tcp_ack, {}).size(), 14u + 20 + 20);
}

TEST(Frames, EveryPacket_HasADifferentIdentification) {
    FrameBuilder builder;
    const Bytes first = copied(build_udp(builder, host, peer, {}));
    const Bytes second = copied(build_udp(builder, host, peer, {}));
    EXPECT_EQ(first[19] + 1, second[19]);
}

}  // namespace
}  // namespace tessel::capture
