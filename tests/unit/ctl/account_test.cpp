#include "ctl/account.h"

#include "ctl/json_text.h"

#include <gtest/gtest.h>

namespace tessel::ctl {
namespace {

FeedCounters counters(std::uint64_t next_sequence, std::uint64_t sent, std::uint64_t dropped) {
    FeedCounters stats;
    stats.next_sequence = next_sequence;
    stats.sent = sent;
    stats.dropped = dropped;
    return stats;
}

TEST(Account, NothingDropped_IsExact) {
    const Account account = make_account(counters(1001, 100, 0), -1, 990);
    EXPECT_EQ(account_text(account), "sent 1000, damaged on purpose 0, received 990, lost on the way 10");
    EXPECT_TRUE(account.damage_exact);
    EXPECT_EQ(account_json(account.sent, account.damaged, account.received, account.lost),
              R"({"sent":1000,"damaged":0,"received":990,"lost":10})");
}

TEST(Account, DroppedPackets_AreReckonedWithoutALogAndExactWithOne) {
    const Account reckoned = make_account(counters(1001, 90, 10), -1, 895);
    EXPECT_EQ(account_text(reckoned), "sent 1000, damaged on purpose 100, received 895, lost on the way 5");
    EXPECT_FALSE(reckoned.damage_exact);
    const Account exact = make_account(counters(1001, 90, 10), 105, 895);
    EXPECT_EQ(account_text(exact), "sent 1000, damaged on purpose 105, received 895, lost on the way 0");
    EXPECT_TRUE(exact.damage_exact);
}

TEST(Account, WhatWasRecovered_IsNotLost) {
    EXPECT_EQ(make_account(counters(1001, 90, 10), 105, 1000).lost, 0);
    EXPECT_EQ(make_account(counters(1, 0, 0), -1, 0).lost, 0);
}

TEST(Account, Summary_GivesTheMessagesReceived) {
    EXPECT_EQ(
        received_of_summary("tessel-listen: joined\ntessel-listen: 895 messages (1 to 1000), 3 lines\n"),
        895);
    EXPECT_EQ(received_of_summary("tessel-listen: 1,234,567 messages (1 to 2)"), 1234567);
    EXPECT_EQ(received_of_summary("tessel-listen: 5 messages (1 to 5)\ntessel-listen: 7 messages (1 to 7)\n"),
              7);
    EXPECT_EQ(received_of_summary("{\"messages\":42,\"lost\":0}"), 42);
    EXPECT_EQ(received_of_summary("x\n{\"messages\":43}\n"), 43);
    EXPECT_EQ(received_of_summary("tessel-listen: lost 3 messages from 9 on\n"), -1);
    EXPECT_EQ(received_of_summary(""), -1);
}

TEST(Account, FeedLog_GivesTheMessagesOfDroppedPackets) {
    EXPECT_EQ(damaged_of_log("tessel fault: dropped seq 1 (packet 1, 9 message(s))\n"
                             "tessel fault: duplicated seq 10 (packet 2)\n"
                             "tessel fault: dropped seq 30 (packet 4, 12 message(s))\n"),
              21);
    EXPECT_EQ(damaged_of_log("tessel faults: sent 3 dropped 0"), 0);
}

}  // namespace
}  // namespace tessel::ctl
