#include "ctl/stats.h"

#include "ctl/json_text.h"

#include <gtest/gtest.h>

namespace tessel::ctl {
namespace {

constexpr const char* reply =
    "ok quotes=165 adf_quotes=20 halts=0 next_seq=218 tessel faults: sent 22 dropped 1 duplicated 2 "
    "reordered 3";

TEST(Stats, Reply_IsTakenApart) {
    FeedCounters stats;
    ASSERT_TRUE(parse_stats(reply, stats));
    EXPECT_EQ(stats.counters.size(), 3U);
    EXPECT_EQ(counter(stats, "adf_quotes"), 20U);
    EXPECT_EQ(counter(stats, "frobs"), 0U);
    EXPECT_EQ(stats.next_sequence, 218U);
    EXPECT_EQ(stats.sent, 22U);
    EXPECT_EQ(stats.reordered, 3U);
}

TEST(Stats, AnythingElse_IsRefused) {
    FeedCounters stats;
    for (const char* text : {"", "ok", "ok stopping", "err unknown command 'x'", "ok quotes=1 next_seq=x",
                             "ok quotes=1 tessel faults: sent 1 dropped 0 duplicated 0 reordered 0",
                             "ok quotes=1 next_seq=3 tessel faults: sent 1 dropped 0 duplicated 0",
                             "ok quotes=99999999999999999999 next_seq=3"}) {
        EXPECT_FALSE(parse_stats(text, stats)) << text;
    }
}

TEST(Stats, Json_HasTheCountersByName) {
    FeedCounters stats;
    ASSERT_TRUE(parse_stats(reply, stats));
    EXPECT_EQ(stats_json(stats), R"({"quotes":165,"adf_quotes":20,"halts":0,"next_seq":218,)"
                                 R"("faults":{"sent":22,"dropped":1,"duplicated":2,"reordered":3}})");
}

}  // namespace
}  // namespace tessel::ctl
