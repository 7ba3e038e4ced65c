#include "listen/run_channels.h"

#include <gtest/gtest.h>

#include <vector>

namespace tessel::listen {
namespace {

const channels::Channel channel{
    "ch02",           "239.255.26.2",    26'004, "10.0.0.2",  "TESSELCH02", "10.0.0.2:26005",
    "10.0.0.2:26006", "127.0.0.1:26007", 7,      "ch02.toml", {"AAPL"}};

TEST(RunChannels, OptionsOfAChannel_AreTheListsAndBeginWithMessageOne) {
    Options options;
    options.out_dir = "out";
    options.seconds = 3;
    const Options own = channel_options(options, channel);
    EXPECT_EQ(own.group, "239.255.26.2");
    EXPECT_EQ(own.port, 26'004);
    EXPECT_EQ(own.iface, "10.0.0.2");
    EXPECT_EQ(own.session, "TESSELCH02");
    EXPECT_EQ(own.retrans, "10.0.0.2:26005");
    EXPECT_EQ(own.snapshot, "");
    EXPECT_EQ(own.out, "out/ch02.jsonl");
    EXPECT_EQ(own.first_sequence, 1U);
    EXPECT_EQ(own.seconds, 3);
}

TEST(RunChannels, LateOrUnrecoveredChannel_BeginsWithTheFirstReceived) {
    Options options;
    options.no_retrans = true;
    EXPECT_EQ(channel_options(options, channel).retrans, "");
    EXPECT_EQ(channel_options(options, channel).first_sequence, 0U);
    EXPECT_EQ(channel_options(options, channel).out, "");
    options.no_retrans = false;
    options.late = true;
    EXPECT_EQ(channel_options(options, channel).snapshot, "10.0.0.2:26006");
    EXPECT_EQ(channel_options(options, channel).first_sequence, 0U);
    options.late = false;
    options.from_given = true;
    options.first_sequence = 50;
    options.iface_given = true;
    options.iface = "10.0.0.9";
    EXPECT_EQ(channel_options(options, channel).first_sequence, 50U);
    EXPECT_EQ(channel_options(options, channel).iface, "10.0.0.9");
}

TEST(RunChannels, Threads_ShareTheChannelsEvenly) {
    using Sizes = std::vector<std::size_t>;
    EXPECT_EQ(group_sizes(24, 2), (Sizes{12, 12}));
    EXPECT_EQ(group_sizes(5, 3), (Sizes{1, 2, 2}));
    EXPECT_EQ(group_sizes(3, 8), (Sizes{1, 1, 1}));
    EXPECT_EQ(group_sizes(3, 1), (Sizes{3}));
}

}  // namespace
}  // namespace tessel::listen
