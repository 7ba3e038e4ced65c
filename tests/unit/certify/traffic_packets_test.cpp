#include "certify/traffic_packets.h"

#include "base/byte_order.h"
#include "mold/packet.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

// A packet of messages of `length` bytes: version, category, type, market center, then the number.
Packet packet(std::uint64_t first, unsigned count, const std::string& type = "QC", std::size_t length = 40) {
    Packet bytes(mold_header_bytes);
    put_mold_header(bytes.data(), "FEEDNUMBER", first, count);
    for (unsigned message = 0; message < count; ++message) {
        Packet block(block_prefix_bytes + length, static_cast<unsigned char>(first + message));
        write_big_endian(block.data(), length, block_prefix_bytes);
        block[2] = '1';
        block[3] = static_cast<unsigned char>(type[0]);
        block[4] = static_cast<unsigned char>(type[1]);
        block[5] = 'P';
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    return bytes;
}

std::string session_of(const Packet& bytes) {
    return {bytes.begin(), bytes.begin() + mold_session_bytes};
}

Traffic table(const std::string& kind, std::map<std::string, std::string> values = {}) {
    return {kind, std::move(values)};
}

TrafficSettings settings(const Traffic& traffic) {
    TrafficSettings read;
    std::string error;
    EXPECT_TRUE(read_traffic_settings(traffic, read, error)) << error;
    return read;
}

std::vector<Packet> sent_for(GroupTraffic& traffic, const Packet& bytes) {
    std::vector<OutgoingPacket> out;
    on_feed_packet(traffic, bytes.data(), bytes.size(), out);
    std::vector<Packet> sent;
    for (OutgoingPacket& each : out) {
        sent.push_back(each.bytes);
    }
    return sent;
}

TEST(ForeignCopy, OfMessages_IsAWholePacketOfAnotherSessionWithTheNextNumbers) {
    const Packet original = packet(50, 3);
    const Packet copy = foreign_copy(original, false);
    EXPECT_TRUE(is_whole_packet(copy));
    EXPECT_EQ(session_of(copy).substr(0, 9), "OTHERFEED");
    EXPECT_EQ(mold_sequence(copy.data()), 53U);
    EXPECT_EQ(mold_count(copy.data()), 3U);
    EXPECT_EQ(copy[mold_header_bytes + 5], 'Q');
}

TEST(ForeignCopy, WithTheLastCharacter_DiffersInThatOneAlone) {
    Packet original = packet(50, 1);
    EXPECT_EQ(session_of(foreign_copy(original, true)), "FEEDNUMBEZ");
    original[9] = 'Z';
    EXPECT_EQ(session_of(foreign_copy(original, true)), "FEEDNUMBEY");
}

TEST(ForeignCopy, OfAHeartbeat_IsAheadOfIt) {
    const Packet copy = foreign_copy(packet(50, 0), false);
    EXPECT_EQ(mold_sequence(copy.data()), 1050U);
    EXPECT_EQ(copy.size(), mold_header_bytes);
}

TEST(MalformedCopy, OfEveryKind_IsNoWholePacket) {
    const Packet original = packet(50, 3);
    for (const char* how : {"cut", "count", "length", "header"}) {
        for (std::uint64_t turn = 1; turn < 40; ++turn) {
            EXPECT_FALSE(is_whole_packet(malformed_copy(original, how, turn))) << how << turn;
        }
    }
}

TEST(MalformedCopy, Cut_HasTheNextNumbersAndHalfAMessage) {
    const Packet copy = malformed_copy(packet(50, 3), "cut", 1);
    EXPECT_EQ(mold_sequence(copy.data()), 53U);
    EXPECT_EQ(copy.size(), mold_header_bytes + block_prefix_bytes + 20);
}

TEST(MalformedCopy, Count_PromisesMoreThanThereIs) {
    const Packet copy = malformed_copy(packet(50, 3), "count", 1);
    EXPECT_EQ(mold_sequence(copy.data()), 50U);
    EXPECT_EQ(mold_count(copy.data()), 103U);
}

TEST(ReplaceTypes, OfAMixedPacket_ChangesTheMessagesOfThatTypeAlone) {
    Packet bytes = packet(50, 2, "QM");
    const Packet other = packet(52, 1, "QC");
    bytes.insert(bytes.end(), other.begin() + mold_header_bytes, other.end());
    write_big_endian(bytes.data() + mold_count_at, 3, 2);
    const std::size_t size = bytes.size();
    EXPECT_EQ(replace_types(bytes, "QM", "Z9"), 2U);
    EXPECT_EQ(bytes.size(), size);
    EXPECT_EQ(bytes[mold_header_bytes + 3], 'Z');
    EXPECT_EQ(bytes[mold_header_bytes + 4], '9');
    EXPECT_EQ(replace_types(bytes, "QC", "TZ"), 1U);
}

TEST(SplitPacket, OfSeveralMessages_MakesAPacketOfEach) {
    const std::vector<Packet> pieces = split_packet(packet(50, 3));
    ASSERT_EQ(pieces.size(), 3U);
    for (unsigned at = 0; at < 3; ++at) {
        EXPECT_EQ(pieces[at], packet(50 + at, 1));
    }
    EXPECT_EQ(split_packet(packet(50, 0)), std::vector<Packet>{packet(50, 0)});
}

TEST(WholePacket, CutAnywhere_IsNone) {
    const Packet whole = packet(50, 3);
    EXPECT_TRUE(is_whole_packet(whole));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(is_whole_packet(Packet(whole.begin(), whole.begin() + static_cast<long>(length))));
    }
}

TEST(GroupTraffic, BesideTheFeed_AddsEveryNthTimeAndForwardsNothing) {
    GroupTraffic traffic = make_group_traffic({settings(table("empty", {{"every", "3"}}))}, false);
    std::vector<std::size_t> added;
    for (std::uint64_t number = 1; number <= 9; ++number) {
        added.push_back(sent_for(traffic, packet(number, 1)).size());
    }
    EXPECT_EQ(added, (std::vector<std::size_t>{0, 0, 1, 0, 0, 1, 0, 0, 1}));
    EXPECT_EQ(traffic.added, 3U);
}

TEST(GroupTraffic, Between_ForwardsWhatItDoesNotKnow) {
    GroupTraffic traffic = make_group_traffic({settings(table("retrans_twice"))}, true);
    EXPECT_EQ(sent_for(traffic, packet(50, 2)), std::vector<Packet>{packet(50, 2)});
    EXPECT_EQ(sent_for(traffic, packet(52, 0)), std::vector<Packet>{packet(52, 0)});
    EXPECT_EQ(sent_for(traffic, Packet{1, 2, 3}), (std::vector<Packet>{{1, 2, 3}}));
}

TEST(GroupTraffic, Replay_SendsThePacketOfSoManyAgo) {
    GroupTraffic traffic =
        make_group_traffic({settings(table("replay", {{"every", "4"}, {"back", "3"}}))}, false);
    std::vector<Packet> replayed;
    for (std::uint64_t number = 1; number <= 12; ++number) {
        for (const Packet& each : sent_for(traffic, packet(number, 1))) {
            replayed.push_back(each);
        }
    }
    EXPECT_EQ(replayed, (std::vector<Packet>{packet(1, 1), packet(5, 1), packet(9, 1)}));
}

TEST(GroupTraffic, LateHeartbeat_ComesOnce) {
    GroupTraffic traffic =
        make_group_traffic({settings(table("late_heartbeat", {{"after", "6"}, {"back", "4"}}))}, false);
    std::vector<Packet> added;
    for (std::uint64_t number = 1; number <= 20; ++number) {
        for (const Packet& each : sent_for(traffic, packet(number, 1))) {
            added.push_back(each);
        }
    }
    EXPECT_EQ(added, std::vector<Packet>{packet(2, 0)});
}

TEST(GroupTraffic, Delay_HoldsEveryNthPacketAndNoHeartbeat) {
    GroupTraffic traffic =
        make_group_traffic({settings(table("delay", {{"every", "2"}, {"ms", "100"}}))}, true);
    std::vector<OutgoingPacket> out;
    for (std::uint64_t number = 1; number <= 2; ++number) {
        const Packet bytes = packet(number, 1);
        on_feed_packet(traffic, bytes.data(), bytes.size(), out);
    }
    const Packet heartbeat = packet(3, 0);
    on_feed_packet(traffic, heartbeat.data(), heartbeat.size(), out);
    ASSERT_EQ(out.size(), 3U);
    EXPECT_EQ(out[0].delay_ns, 0);
    EXPECT_EQ(out[1].delay_ns, 100'000'000);
    EXPECT_EQ(out[2].delay_ns, 0);
}

TEST(GroupTraffic, Noise_IsTheSameForOneSeed) {
    const auto noise = [](const std::string& seed) {
        GroupTraffic traffic = make_group_traffic({settings(table("noise", {{"seed", seed}}))}, false);
        return sent_for(traffic, packet(1, 1));
    };
    EXPECT_EQ(noise("4"), noise("4"));
    EXPECT_NE(noise("4"), noise("5"));
}

TEST(GroupTraffic, Oversize_IsTheLargestDatagramOfAnotherSession) {
    GroupTraffic traffic = make_group_traffic({settings(table("oversize"))}, false);
    const std::vector<Packet> sent = sent_for(traffic, packet(1, 1));
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].size(), datagram_bytes_max);
    EXPECT_EQ(session_of(sent[0]), "XXXXXXXXXX");
}

}  // namespace
}  // namespace tessel::certify
