#include "certify/traffic_retrans.h"

#include "mold/packet.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

Packet request(std::uint64_t first, unsigned count) {
    Packet bytes(mold_header_bytes);
    put_mold_header(bytes.data(), "FEEDNUMBER", first, count);
    return bytes;
}

RetransTraffic traffic_of(const std::string& kind, std::map<std::string, std::string> values = {}) {
    RetransTraffic traffic;
    std::string error;
    EXPECT_TRUE(read_traffic_settings({kind, std::move(values)}, traffic.settings.emplace_back(), error))
        << error;
    return traffic;
}

Packet reply() {
    Packet bytes = request(7, 1);
    const Packet block = {0, 8, '1', 'Q', 'M', 'P', 1, 2, 3, 4};
    bytes.insert(bytes.end(), block.begin(), block.end());
    return bytes;
}

std::vector<OutgoingPacket> sent_for(RetransTraffic& traffic) {
    std::vector<OutgoingPacket> out;
    on_reply(traffic, reply(), out);
    return out;
}

TEST(RetransTraffic, Silent_AnswersAfterSoManyRequestsOrNever) {
    RetransTraffic twice = traffic_of("retrans_silent", {{"requests", "2"}});
    RetransTraffic never = traffic_of("retrans_silent");
    Packet bytes = request(7, 100);
    EXPECT_FALSE(on_request(twice, bytes));
    EXPECT_FALSE(on_request(twice, bytes));
    EXPECT_TRUE(on_request(twice, bytes));
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_FALSE(on_request(never, bytes));
    }
    EXPECT_EQ(never.counters.ignored, 20U);
}

TEST(RetransTraffic, Partial_LowersTheCount) {
    RetransTraffic traffic = traffic_of("retrans_partial", {{"messages", "40"}});
    Packet large = request(7, 100);
    Packet small = request(7, 10);
    EXPECT_TRUE(on_request(traffic, large));
    EXPECT_TRUE(on_request(traffic, small));
    EXPECT_EQ(large, request(7, 40));
    EXPECT_EQ(small, request(7, 10));
}

TEST(RetransTraffic, Lossy_LosesEveryNthReply) {
    RetransTraffic traffic = traffic_of("retrans_lossy", {{"every", "3"}});
    std::vector<std::size_t> sent;
    for (int turn = 0; turn < 6; ++turn) {
        sent.push_back(sent_for(traffic).size());
    }
    EXPECT_EQ(sent, (std::vector<std::size_t>{1, 1, 0, 1, 1, 0}));
    EXPECT_EQ(traffic.counters.lost, 2U);
}

TEST(RetransTraffic, Slow_DelaysReplies) {
    RetransTraffic traffic = traffic_of("retrans_slow", {{"ms", "400"}});
    EXPECT_EQ(sent_for(traffic).at(0).delay_ns, 400'000'000);
}

TEST(RetransTraffic, Twice_SendsTheReplyAgain) {
    RetransTraffic traffic = traffic_of("retrans_twice");
    const std::vector<OutgoingPacket> sent = sent_for(traffic);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].bytes, reply());
    EXPECT_EQ(sent[1].bytes, reply());
}

TEST(RetransTraffic, Foreign_SendsTheNumbersAskedForUnderAnotherSessionFirst) {
    RetransTraffic traffic = traffic_of("retrans_foreign");
    const std::vector<OutgoingPacket> sent = sent_for(traffic);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(mold_sequence(sent[0].bytes.data()), 7U);
    EXPECT_NE(sent[0].bytes[0], reply()[0]);
    EXPECT_NE(sent[0].bytes[mold_header_bytes + 5], reply()[mold_header_bytes + 5]);
    EXPECT_EQ(sent[1].bytes, reply());
}

TEST(RetransTraffic, UnknownType_IsTheSameInReplies) {
    RetransTraffic traffic = traffic_of("unknown_type", {{"from", "QM"}, {"to", "Z9"}});
    const std::vector<OutgoingPacket> sent = sent_for(traffic);
    EXPECT_EQ(sent.at(0).bytes[mold_header_bytes + 3], 'Z');
    EXPECT_EQ(sent.at(0).bytes[mold_header_bytes + 4], '9');
}

}  // namespace
}  // namespace tessel::certify
