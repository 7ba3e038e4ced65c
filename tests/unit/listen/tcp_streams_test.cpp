#include "listen/tcp_streams.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::listen {
namespace {

const PcapFlow flow{1, 2, 25'179, 40'000};

struct Connection {
    bool segment(std::uint32_t sequence, unsigned char flags, const std::string& data,
                 const PcapFlow& from = flow) {
        std::string bytes(20, '\0');
        for (unsigned at = 0; at < 4; ++at) {
            bytes[4 + at] = static_cast<char>(sequence >> (24 - 8 * at));
        }
        bytes[12] = 0x50;
        bytes[13] = static_cast<char>(flags);
        bytes += data;
        return add_segment(streams, from, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                           [this](const PcapFlow&, const unsigned char* p, std::size_t n) {
                               received.append(reinterpret_cast<const char*>(p), n);
                           });
    }
    TcpStreams streams;
    std::string received;
};

TEST(TcpStreams, BytesComeInOrder_EachOnce_AcrossTheEndOfTheNumbers) {
    Connection c;
    c.segment(UINT32_MAX - 2, 0x02, "");
    c.segment(UINT32_MAX - 1, 0x10, "ab");
    c.segment(2, 0x10, "ef");
    c.segment(UINT32_MAX - 1, 0x10, "ab");
    EXPECT_EQ(c.received, "ab");
    c.segment(0, 0x10, "cd");
    c.segment(1, 0x10, "def");
    c.segment(4, 0x10, "gh");
    EXPECT_EQ(c.received, "abcdefgh");
    EXPECT_EQ(c.streams.pending_bytes, 0u);
}

TEST(TcpStreams, EndOfAConnection_FreesIt) {
    Connection c;
    c.segment(0, 0x02, "");
    c.segment(1, 0x11, "ab");
    EXPECT_EQ(c.received, "ab");
    EXPECT_TRUE(c.streams.streams.empty());
    c.segment(0, 0x02, "");
    c.segment(5, 0x10, "late");
    c.segment(1, 0x04, "");
    EXPECT_TRUE(c.streams.streams.empty());
    EXPECT_EQ(c.streams.pending_bytes, 0u);
}

TEST(TcpStreams, ManyConnections_AreHeldToTheLimit) {
    Connection c;
    for (std::uint32_t from = 0; from < tcp_streams_max + 10; ++from) {
        c.segment(0, 0x02, "", {from, 2, 3, 4});
    }
    EXPECT_EQ(c.streams.streams.size(), tcp_streams_max);
}

TEST(TcpStreams, DataFarAhead_IsHeldToTheLimit) {
    Connection c;
    c.segment(0, 0x02, "");
    const std::string piece(60'000, 'x');
    for (std::uint32_t at = 0; at < 2000; ++at) {
        c.segment(1000 + at * 60'000, 0x10, piece);
    }
    EXPECT_LE(c.streams.pending_bytes, tcp_pending_bytes_max);
}

TEST(TcpStreams, BadHeaders_AreNoSegments) {
    TcpStreams streams;
    const unsigned char bytes[20] = {};
    for (std::size_t length = 0; length <= 20; ++length) {
        EXPECT_FALSE(add_segment(streams, flow, bytes, length, {}));
    }
}

}  // namespace
}  // namespace tessel::listen
