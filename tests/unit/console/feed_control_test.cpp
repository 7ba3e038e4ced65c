#include "console/feed_control.h"

#include <gtest/gtest.h>

namespace tessel::console {
namespace {

ctl::FeedCounters counters_of(std::uint64_t next, std::uint64_t dropped, std::uint64_t duplicated,
                              std::uint64_t reordered) {
    ctl::FeedCounters counters;
    counters.counters = {{"quotes", 1}};
    counters.next_sequence = next;
    counters.dropped = dropped;
    counters.duplicated = duplicated;
    counters.reordered = reordered;
    return counters;
}

TEST(ConsoleFeedControl, FaultsBetweenTwoAnswers_AsText) {
    EXPECT_EQ(fault_text(counters_of(10, 1, 0, 0), counters_of(20, 1, 0, 0)), "");
    EXPECT_EQ(fault_text(counters_of(10, 1, 0, 0), counters_of(20, 2, 0, 0)), "1 packet dropped");
    EXPECT_EQ(fault_text(counters_of(10, 0, 0, 0), counters_of(20, 3, 2, 1)),
              "3 packets dropped, 2 packets sent twice, 1 packet held back");
}

TEST(ConsoleFeedControl, FirstAnswerOrNewRun_NoFault) {
    EXPECT_EQ(fault_text({}, counters_of(20, 3, 2, 1)), "");
    EXPECT_EQ(fault_text(counters_of(100, 3, 0, 0), counters_of(20, 9, 0, 0)), "");
}

TEST(ConsoleFeedControl, NoRelayOrNobodyThere_NotAnswered) {
    const ControlSettings settings{"127.0.0.1:1", ""};
    const CommandAnswer relay = send_control_command(settings, CommandTarget::relay, "stats");
    EXPECT_FALSE(relay.answered);
    EXPECT_NE(relay.reply.find("--relay"), std::string::npos);
    const CommandAnswer feed = send_control_command(settings, CommandTarget::feed, "stats");
    EXPECT_FALSE(feed.answered);
    EXPECT_NE(feed.reply.find("127.0.0.1:1"), std::string::npos);
}

}  // namespace
}  // namespace tessel::console
