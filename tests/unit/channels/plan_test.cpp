#include "channels/plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tessel::channels {
namespace {

// N symbols in an order that is not the alphabet's.
std::vector<SymbolPrice> symbols_of(std::size_t count) {
    std::vector<SymbolPrice> symbols;
    for (std::size_t at = 0; at < count; ++at) {
        const std::size_t shuffled = at * 7919 % count;
        std::string name;
        for (std::size_t rest = shuffled, letter = 0; letter < 4; ++letter, rest /= 26) {
            name.insert(name.begin(), static_cast<char>('A' + rest % 26));
        }
        symbols.push_back({name, std::to_string(10 + at) + ".50"});
    }
    return symbols;
}

std::vector<PlannedChannel> plan_of(const PlanOptions& options, const std::vector<SymbolPrice>& symbols) {
    std::vector<PlannedChannel> plan;
    std::string error;
    EXPECT_TRUE(make_plan(options, symbols, plan, error)) << error;
    return plan;
}

std::string reason_for(const PlanOptions& options, std::size_t symbols) {
    std::vector<PlannedChannel> plan;
    std::string error;
    EXPECT_FALSE(make_plan(options, symbols_of(symbols), plan, error));
    return error;
}

// The channel of each symbol.
std::map<std::string, std::string> channels_of(const std::vector<PlannedChannel>& plan) {
    std::map<std::string, std::string> result;
    for (const PlannedChannel& planned : plan) {
        for (const std::string& symbol : planned.channel.symbols) {
            EXPECT_TRUE(result.insert({symbol, planned.channel.name}).second) << symbol << " is there twice";
        }
    }
    return result;
}

void expect_sizes_differ_by_one_at_most(const std::vector<PlannedChannel>& plan) {
    const auto [least, most] = std::minmax_element(
        plan.begin(), plan.end(), [](const PlannedChannel& one, const PlannedChannel& other) {
            return one.channel.symbols.size() < other.channel.symbols.size();
        });
    EXPECT_GE(least->channel.symbols.size(), 1U);
    EXPECT_LE(most->channel.symbols.size(), least->channel.symbols.size() + 1);
}

TEST(Plan, EverySymbol_IsInOneChannelWithItsPrice) {
    const std::vector<SymbolPrice> symbols = symbols_of(101);
    for (const Division by : {Division::range, Division::hash, Division::count}) {
        const std::vector<PlannedChannel> plan = plan_of({.channels = 7, .by = by}, symbols);
        EXPECT_EQ(channels_of(plan).size(), 101U);
        for (const PlannedChannel& planned : plan) {
            ASSERT_EQ(planned.prices.size(), planned.channel.symbols.size());
            for (std::size_t at = 0; at < planned.prices.size(); ++at) {
                const auto found = std::find_if(symbols.begin(), symbols.end(), [&](const SymbolPrice& each) {
                    return each.symbol == planned.channel.symbols[at];
                });
                EXPECT_EQ(found->price, planned.prices[at]);
            }
        }
    }
}

TEST(Plan, Ranges_FollowTheAlphabetAcrossChannels) {
    for (const std::size_t count : {24U, 25U, 47U, 100U}) {
        const std::vector<PlannedChannel> plan = plan_of({.channels = 24}, symbols_of(count));
        std::string last;
        for (const PlannedChannel& planned : plan) {
            for (const std::string& symbol : planned.channel.symbols) {
                EXPECT_LT(last, symbol);
                last = symbol;
            }
        }
        expect_sizes_differ_by_one_at_most(plan);
    }
}

TEST(Plan, Counts_DifferByOneAtMost) {
    for (const std::size_t count : {5U, 6U, 9U, 101U}) {
        const auto plan = plan_of({.channels = 5, .by = Division::count}, symbols_of(count));
        expect_sizes_differ_by_one_at_most(plan);
        EXPECT_EQ(plan[1].channel.symbols[0], symbols_of(count)[1].symbol);
    }
}

TEST(Plan, Hash_DependsOnTheSymbolAlone) {
    std::vector<SymbolPrice> symbols = symbols_of(200);
    const PlanOptions options{.channels = 6, .by = Division::hash};
    const auto all = channels_of(plan_of(options, symbols));
    std::reverse(symbols.begin(), symbols.end());
    EXPECT_EQ(channels_of(plan_of(options, symbols)), all);
    symbols.resize(50);
    for (const auto& [symbol, channel] : channels_of(plan_of(options, symbols))) {
        EXPECT_EQ(channel, all.at(symbol));
    }
    std::set<std::string> used;
    for (const auto& [symbol, channel] : all) {
        used.insert(channel);
    }
    EXPECT_EQ(used.size(), 6U);
    // Kept for good: a handler may compute it.
    EXPECT_EQ(hashed_channel("AAPL", 24), 16U);
    EXPECT_EQ(hashed_channel("MSFT", 24), 18U);
}

TEST(Plan, GroupsAndPorts_CountUpAndAreUsedOnce) {
    const auto plan =
        plan_of({.channels = 24, .group_base = "239.255.26.1", .port_base = 26'000}, symbols_of(48));
    EXPECT_EQ(plan[0].channel.name, "ch01");
    EXPECT_EQ(plan[0].channel.group, "239.255.26.1");
    EXPECT_EQ(plan[0].channel.port, 26'000);
    EXPECT_EQ(plan[0].channel.retrans, "127.0.0.1:26001");
    EXPECT_EQ(plan[0].channel.snapshot, "127.0.0.1:26002");
    EXPECT_EQ(plan[0].channel.control, "127.0.0.1:26003");
    EXPECT_EQ(plan[23].channel.name, "ch24");
    EXPECT_EQ(plan[23].channel.group, "239.255.26.24");
    EXPECT_EQ(plan[23].channel.config, "ch24.toml");
    std::set<std::string> ports;
    std::set<std::string> sessions;
    std::set<std::uint64_t> seeds;
    for (const PlannedChannel& planned : plan) {
        const Channel& channel = planned.channel;
        ports.insert(std::to_string(channel.port));
        for (const std::string& endpoint : {channel.retrans, channel.snapshot, channel.control}) {
            ports.insert(endpoint.substr(endpoint.find(':') + 1));
        }
        sessions.insert(channel.session);
        EXPECT_EQ(channel.session.size(), 10U);
        seeds.insert(channel.seed);
        EXPECT_LT(channel.seed, std::uint64_t{1} << 53);
    }
    EXPECT_EQ(ports.size(), 96U);
    EXPECT_EQ(sessions.size(), 24U);
    EXPECT_EQ(seeds.size(), 24U);
}

TEST(Plan, OtherSeed_ChangesEveryChannelsSeedAndNothingElse) {
    const auto one = plan_of({.channels = 4, .seed = 1}, symbols_of(8));
    auto other = plan_of({.channels = 4, .seed = 2}, symbols_of(8));
    for (std::size_t at = 0; at < one.size(); ++at) {
        EXPECT_NE(one[at].channel.seed, other[at].channel.seed);
        other[at].channel.seed = one[at].channel.seed;
        EXPECT_EQ(channel_list_text({one[at].channel}), channel_list_text({other[at].channel}));
    }
}

TEST(Plan, HundredsOfChannels_HaveThreeDigits) {
    const auto plan = plan_of({.channels = 255}, symbols_of(300));
    EXPECT_EQ(plan[0].channel.name, "ch001");
    EXPECT_EQ(plan[254].channel.session, "TESSELC255");
    EXPECT_EQ(plan[254].channel.group, "239.255.26.255");
}

TEST(Plan, WhatCannotBePlanned_IsRefusedWithTheOption) {
    EXPECT_EQ(reason_for({.channels = 0}, 3), "--channels: 0 channels; at least 1 is right");
    EXPECT_EQ(reason_for({.channels = -1}, 3), "--channels: -1 channels; at least 1 is right");
    EXPECT_EQ(reason_for({.channels = 4}, 3),
              "--channels: 4 channels for 3 symbols; at most one channel a symbol is right");
    EXPECT_EQ(reason_for({.channels = 3, .port_base = 0}, 3), "--port-base: 0 is out of range: 1 to 65535");
    EXPECT_EQ(reason_for({.channels = 3, .port_base = 65'536}, 3),
              "--port-base: 65536 is out of range: 1 to 65535");
    EXPECT_EQ(plan_of({.channels = 3, .port_base = 65'524}, symbols_of(3))[2].channel.control,
              "127.0.0.1:65535");
    EXPECT_EQ(reason_for({.channels = 3, .port_base = 65'525}, 3),
              "--port-base: 12 ports from 65525 on run above 65535; start at 65524 or below");
    EXPECT_EQ(reason_for({.channels = 1, .group_base = "240.0.0.0"}, 3),
              "--group-base: '240.0.0.0' is no multicast address: 224.0.0.0 to 239.255.255.255");
    EXPECT_EQ(reason_for({.channels = 1, .group_base = "x"}, 3),
              "--group-base: 'x' is no multicast address: 224.0.0.0 to 239.255.255.255");
    EXPECT_EQ(plan_of({.channels = 2, .group_base = "239.255.255.254"}, symbols_of(3))[1].channel.group,
              "239.255.255.255");
    EXPECT_EQ(reason_for({.channels = 3, .group_base = "239.255.255.254"}, 3),
              "--group-base: 3 groups from 239.255.255.254 on run over the last byte: at most 2");
    EXPECT_EQ(reason_for({.channels = 3, .group_base = "239.1.2.254"}, 3),
              "--group-base: 3 groups from 239.1.2.254 on run over the last byte: at most 2");
    EXPECT_EQ(reason_for({.channels = 1, .iface = "eth0"}, 3), "--iface: 'eth0' is no IPv4 address");
}

TEST(Plan, SymbolsBeyondOneArgument_NeedMoreChannels) {
    std::vector<SymbolPrice> symbols;
    for (int number = 0; number < 10'000; ++number) {
        symbols.push_back({"S" + std::to_string(100'000 + number), "123.4567"});
    }
    std::vector<PlannedChannel> plan;
    std::string error;
    EXPECT_FALSE(make_plan({.channels = 1}, symbols, plan, error));
    EXPECT_EQ(error,
              "--channels: the 10000 symbols of ch01 are more than a feed can be given; use more channels");
    plan_of({.channels = 2}, symbols);
}

}  // namespace
}  // namespace tessel::channels
