#include "listen/capture_join.h"

#include "mold/packet.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::listen {
namespace {

using receiver::PacketSource;

const PcapFlow flow{1, 2, 25'179, 40'000};

HeldPacket packet(PacketSource source, std::uint64_t first, std::uint64_t count,
                  const std::string& session = "UTPBENCH01") {
    std::vector<unsigned char> bytes(session.begin(), session.end());
    bytes.resize(20);
    write_big_endian(bytes.data() + 10, first, 8);
    write_big_endian(bytes.data() + 18, count, 2);
    return {source, 0, bytes};
}

std::uint64_t first_of(std::initializer_list<HeldPacket> packets) {
    HeldPackets held;
    for (const HeldPacket& each : packets) {
        hold_packet(held, each);
    }
    return first_number(held, "UTPBENCH01");
}

TEST(CaptureJoin, RepliesThatLeadUpToTheFirstPacket_MoveTheBeginning) {
    const auto multicast = PacketSource::multicast;
    const auto reply = PacketSource::retransmission;
    EXPECT_EQ(first_of({}), 0u);
    EXPECT_EQ(first_of({packet(multicast, 10, 5)}), 10u);
    EXPECT_EQ(first_of({packet(multicast, 10, 5), packet(reply, 1, 9)}), 1u);
    EXPECT_EQ(first_of({packet(multicast, 10, 5), packet(reply, 6, 4), packet(reply, 2, 5)}), 2u);
    EXPECT_EQ(first_of({packet(multicast, 10, 5), packet(reply, 2, 5)}), 10u) << "a gap between";
    EXPECT_EQ(first_of({packet(reply, 1, 9)}), 0u) << "nothing to lead up to";
    EXPECT_EQ(first_of({packet(multicast, 3, 1, "OTHER     "), packet(multicast, 10, 5)}), 10u);
}

TEST(CaptureJoin, HeldPackets_AreHeldToTheLimit) {
    HeldPackets held;
    for (int at = 0; at < 1200; ++at) {
        hold_packet(held, {PacketSource::multicast, at, std::vector<unsigned char>(60'000)});
    }
    EXPECT_LE(held.bytes, held_bytes_max);
    EXPECT_EQ(held.packets.back().now_ms, 1199);
}

std::string soup(char type, const std::string& payload) {
    const std::size_t length = payload.size() + 1;
    return std::string{static_cast<char>(length >> 8), static_cast<char>(length), type} + payload;
}

std::string end_of_snapshot(char covered) {
    std::string message(37, '\0');
    message.replace(0, 3, "1AS");
    message[36] = covered;
    return soup('S', message);
}

struct Reading {
    bool add(const std::string& bytes, const PcapFlow& from = flow) {
        return add_session_bytes(
            sessions, from, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
            [this](const unsigned char* p, std::size_t n) {
                messages.emplace_back(reinterpret_cast<const char*>(p), n);
            },
            covered);
    }
    CapturedSessions sessions;
    std::vector<std::string> messages;
    std::uint64_t covered = 0;
};

TEST(CaptureJoin, Session_IsHandedOutWhenItIsWhole) {
    Reading reading;
    const std::string bytes = soup('A', std::string(30, ' ')) + soup('S', "one") + soup('H', "") +
                              soup('S', "two") + end_of_snapshot(99);
    for (std::size_t at = 0; at + 1 < bytes.size(); ++at) {
        ASSERT_FALSE(reading.add(bytes.substr(at, 1)));
    }
    EXPECT_TRUE(reading.messages.empty());
    ASSERT_TRUE(reading.add(bytes.substr(bytes.size() - 1)));
    ASSERT_EQ(reading.messages.size(), 3u);
    EXPECT_EQ(reading.messages[0], "one");
    EXPECT_EQ(reading.messages[1], "two");
    EXPECT_EQ(reading.covered, 99u);
}

TEST(CaptureJoin, UnfinishedSessions_LeaveNothing) {
    Reading reading;
    EXPECT_FALSE(reading.add(soup('A', std::string(30, ' ')) + soup('S', "half")));
    EXPECT_FALSE(reading.add(soup('S', "never accepted") + end_of_snapshot(1), {9, 9, 9, 9}));
    const PcapFlow other{1, 2, 25'179, 40'001};
    EXPECT_TRUE(
        reading.add(soup('A', std::string(30, ' ')) + soup('S', "whole") + end_of_snapshot(7), other));
    EXPECT_EQ(reading.messages[0], "whole");
    EXPECT_EQ(reading.sessions.bytes, 0u);
}

TEST(CaptureJoin, ManySessions_AreHeldToTheLimit) {
    Reading reading;
    for (std::uint32_t from = 0; from < sessions_max + 20; ++from) {
        reading.add(soup('A', std::string(30, ' ')) + soup('S', "x"), {from, 2, 3, 4});
    }
    EXPECT_EQ(reading.sessions.sessions.size(), sessions_max);
    EXPECT_EQ(reading.sessions.bytes, sessions_max * 5);
}

}  // namespace
}  // namespace tessel::listen
