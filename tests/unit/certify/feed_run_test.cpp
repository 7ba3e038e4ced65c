#include "certify/feed_run.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tessel::certify {
namespace {

std::string value_of(const std::vector<std::string>& words, const std::string& option) {
    const auto found = std::find(words.rbegin(), words.rend(), option);
    return found == words.rend() || found == words.rbegin() ? "" : *(found - 1);
}

TEST(FeedSeed, OfRunAndCase_IsAnotherForEach) {
    EXPECT_EQ(feed_seed(1, "loss/one_packet"), feed_seed(1, "loss/one_packet"));
    EXPECT_NE(feed_seed(1, "loss/one_packet"), feed_seed(1, "loss/burst"));
    EXPECT_EQ(feed_seed(2, "loss/burst"), feed_seed(1, "loss/burst") + 1);
}

TEST(GeneratedSymbols, TheMost_FitIntoOneArgument) {
    EXPECT_EQ(generated_symbols(2), "S0001:21.00,S0002:22.00");
    EXPECT_EQ(generated_symbols(0), "");
    const std::string most = generated_symbols(9'000);
    EXPECT_LT(most.size(), 128U * 1024);
    EXPECT_TRUE(most.ends_with(",S9000:220.00"));
}

TEST(FeedWords, OfACase_HaveItsAddressesAndOptions) {
    Case each;
    each.feed_options = {"--interval-ms", "20"};
    each.generated_symbols = 1;
    FeedRun feed;
    feed.endpoints = {"239.1.2.3", 4000, "127.0.0.1", "UTPBENCH01", "127.0.0.1:4001", "127.0.0.1:4002"};
    feed.control = "127.0.0.1:4003";
    feed.truth_path = "/t";
    const std::vector<std::string> words = feed_words(each, feed, "/bin/tessel", 12);
    EXPECT_EQ(words.front(), "/bin/tessel");
    EXPECT_EQ(value_of(words, "--mcast"), "239.1.2.3");
    EXPECT_EQ(value_of(words, "--port"), "4000");
    EXPECT_EQ(value_of(words, "--retrans-port"), "4001");
    EXPECT_EQ(value_of(words, "--snapshot-port"), "4002");
    EXPECT_EQ(value_of(words, "--control-port"), "4003");
    EXPECT_EQ(value_of(words, "--truth-out"), "/t");
    EXPECT_EQ(value_of(words, "--seed"), "12");
    EXPECT_EQ(value_of(words, "--symbols"), "S0001:21.00");
    EXPECT_EQ(value_of(words, "--interval-ms"), "20");
}

TEST(DroppedRanges, OfALog_AreTheFeedsOwnLines) {
    const std::vector<DroppedRange> ranges = parse_dropped(
        "[tessel] UQDF+UTDF ...\n"
        "tessel fault: dropped seq 58 (packet 5, 8 message(s))\n"
        "tessel fault: duplicated seq 70\n"
        "tessel fault: dropped seq 101 (packet 10, 11 message(s))\n"
        "tessel fault: dropped seq");
    ASSERT_EQ(ranges.size(), 2U);
    EXPECT_EQ(ranges[0].first, 58U);
    EXPECT_EQ(ranges[0].count, 8U);
    EXPECT_EQ(ranges[1].first, 101U);
    EXPECT_EQ(ranges[1].count, 11U);
}

}  // namespace
}  // namespace tessel::certify
