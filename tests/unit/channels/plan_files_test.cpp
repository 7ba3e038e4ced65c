#include "channels/plan_files.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace tessel::channels {
namespace {

std::vector<PlannedChannel> two_channels(const std::string& iface = "127.0.0.1") {
    std::vector<PlannedChannel> plan;
    std::string error;
    EXPECT_TRUE(make_plan({.channels = 2, .iface = iface, .seed = 1},
                          {{"TSLA", "250"}, {"AAPL", "190.00"}, {"MSFT", "410.00"}}, plan, error))
        << error;
    return plan;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(PlanFiles, Configuration_HasTheChannelsAddressesAndSymbols) {
    const std::vector<PlannedChannel> plan = two_channels();
    EXPECT_EQ(
        channel_toml(plan[1], 2),
        "# Channel ch02 of 2, made by tesselctl channels plan.\n"
        "[feed]\n"
        "mcast = \"239.255.26.2\"\n"
        "port = 26004\n"
        "iface = \"127.0.0.1\"\n"
        "retrans_port = 26005\n"
        "snapshot_port = 26006\n"
        "control_port = 26007\n"
        "session = \"TESSELCH02\"\n"
        "seed = " +
            std::to_string(plan[1].channel.seed) +
            "\n"
            "# Relative to the folder where it is started; remove the line for a feed without a truth log.\n"
            "truth_out = \"ch02.jsonl\"\n"
            "symbols = [\n"
            "    \"TSLA:250\",\n"
            "]\n");
}

TEST(PlanFiles, SamePlan_GivesTheSameBytes) {
    const std::vector<PlanFile> one = plan_files(two_channels());
    const std::vector<PlanFile> other = plan_files(two_channels());
    ASSERT_EQ(one.size(), other.size());
    std::map<std::string, std::string> texts;
    for (std::size_t at = 0; at < one.size(); ++at) {
        EXPECT_EQ(one[at].path, other[at].path);
        EXPECT_EQ(one[at].text, other[at].text);
        texts[one[at].path] = one[at].text;
    }
    EXPECT_EQ(texts["instances"], "tessel@ch01\ntessel@ch02\n");
    for (const char* path : {"channels.json", "ch01.toml", "ch02.toml", "compose.yaml",
                             "kubernetes/pods.yaml", "kubernetes/host-network.yaml"}) {
        EXPECT_FALSE(texts[path].empty()) << path;
    }
}

TEST(PlanFiles, ComposedChannels_ShareTheFirstOnesNetworkOrTheHosts) {
    const std::string shared = compose_text(two_channels());
    EXPECT_TRUE(holds(shared, "network_mode: ${TESSEL_NETWORK:-bridge}"));
    EXPECT_TRUE(holds(shared, "network_mode: \"service:ch01\""));
    EXPECT_FALSE(holds(shared, "network_mode: host"));
    const std::string host = compose_text(two_channels("10.0.0.2"));
    EXPECT_TRUE(holds(host, "network_mode: host"));
    EXPECT_FALSE(holds(host, "service:ch01"));
}

}  // namespace
}  // namespace tessel::channels
