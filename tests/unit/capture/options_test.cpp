#include "capture/options.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel::capture {
namespace {

using Words = std::vector<std::string>;

int parse(const Words& words, Options& options, std::string& printed) {
    std::vector<const char*> arguments{"tessel-capture"};
    for (const std::string& word : words) {
        arguments.push_back(word.c_str());
    }
    testing::StderrCapture log;
    const int status = parse_options(options, static_cast<int>(arguments.size()), arguments.data());
    printed = log.take();
    return status;
}

Options parsed(Words words) {
    words.insert(words.end(), {"--pcap", "a.pcap"});
    Options options;
    std::string printed;
    EXPECT_EQ(parse(words, options, printed), -1) << printed;
    return options;
}

std::string refusal(const Words& words) {
    Options options;
    std::string printed;
    EXPECT_EQ(parse(words, options, printed), 2) << printed;
    EXPECT_EQ(printed.find("tessel-capture: "), 0u) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - 1) << printed;
    EXPECT_LE(printed.size(), 200u);
    return printed.substr(16, printed.size() - 17);
}

TEST(CaptureOptions, Defaults_AreTheFeedsAndOurOwn) {
    const Options options = parsed({});
    EXPECT_EQ(options.start_ns, 1'767'623'400'000'000'000);
    EXPECT_EQ(options.duration_ns, 60'000'000'000);
    EXPECT_EQ(options.feed.symbols, "AAPL:190.00,MSFT:410.00,TSLA:250.00");
    EXPECT_EQ(options.feed.seed, 7u);
    EXPECT_EQ(options.source_address, 0x7f000001u);
    EXPECT_EQ(options.group_address, 0xefff19b1u);
    EXPECT_EQ(options.source_mac, (Mac{2, 0, 0, 0, 0, 1}));
    EXPECT_EQ(options.vlan, 0);
    EXPECT_FALSE(options.retransmit);
}

TEST(CaptureOptions, FeedsOptions_AreReadAsTheFeedReadsThem) {
    const Options options = parsed({"--seed", "0x10", "--seed", "9junk", "--interval-ms", "-1", "--symbols",
                                    "", "--drop-burst", "5:2", "--quiet", "--session", "LONGER-THAN-TEN"});
    EXPECT_EQ(options.feed.seed, 9u);
    EXPECT_EQ(options.feed.interval_ms, -1);
    EXPECT_EQ(options.feed.symbols, "");
    EXPECT_EQ(options.feed.session, "LONGER-THA");
    EXPECT_TRUE(options.feed.quiet);
}

TEST(CaptureOptions, Joins_AreKeptInTheirOrderOfTime) {
    const Options options = parsed({"--join-at", "30s", "--join-at", "1.5", "--join-at", "250ms"});
    EXPECT_EQ(options.joins_ns, (std::vector<std::int64_t>{250'000'000, 1'500'000'000, 30'000'000'000}));
}

TEST(CaptureOptions, Addresses_AreRead) {
    const Options options = parsed({"--src-ip", "10.0.0.7", "--src-mac", "02-AB-cd-00-00-ff", "--vlan", "12",
                                    "--src-port", "999", "--mcast", "224.1.2.3"});
    EXPECT_EQ(options.source_address, 0x0a000007u);
    EXPECT_EQ(options.source_mac, (Mac{2, 0xab, 0xcd, 0, 0, 0xff}));
    EXPECT_EQ(options.vlan, 12);
    EXPECT_EQ(options.source_port, 999);
    EXPECT_EQ(options.group_address, 0xe0010203u);
}

TEST(CaptureOptions, Faults_NameTheOptionAndTheValue) {
    const std::pair<Words, std::string> faults[] = {
        {{"--start", "yesterday", "--pcap", "a"}, "--start: 'yesterday' "},
        {{"--duration", "1d", "--pcap", "a"}, "--duration: "},
        {{"--duration", "100000h", "--start", "2100-01-01T00:00:00Z", "--pcap", "a"},
         "--duration: '100000h' "},
        {{"--join-at", "-1", "--pcap", "a"}, "--join-at: "},
        {{"--join-at", "1m", "--pcap", "a"}, "--join-at: '1m' is not before the end"},
        {{"--src-ip", "1.2.3", "--pcap", "a"}, "--src-ip: '1.2.3' "},
        {{"--src-ip", "224.0.0.1", "--pcap", "a"}, "--src-ip: '224.0.0.1' "},
        {{"--src-mac", "02:00:00:00:00", "--pcap", "a"}, "--src-mac: '02:00:00:00:00' "},
        {{"--src-mac", "01:00:00:00:00:00", "--pcap", "a"}, "--src-mac: "},
        {{"--mcast", "group", "--pcap", "a"}, "--mcast: 'group' "},
        {{"--vlan", "4095", "--pcap", "a"}, "--vlan: "},
        {{"--seed", "x", "--pcap", "a"}, "--seed: "},
        {{"--drop-burst", "x:1", "--pcap", "a"}, "--drop-burst: "},
        {{"--symbols", "A:x", "--pcap", "a"}, "--symbols: "},
        {{"--retransmit", "--retrans-port", "0", "--pcap", "a"}, "--retransmit "},
        {{"--join-at", "1", "--snapshot-port", "0", "--pcap", "a"}, "--join-at "},
        {{"--pcap", "a", "--truth-out", "a"}, "--pcap and --truth-out both go to 'a'"},
        {{}, "nothing to write: "},
        {{"--control-port", "1", "--pcap", "a"}, "--control-port: a capture has no control channel"},
        {{"--book-out", "b", "--pcap", "a"}, "--book-out: "},
        {{"--bbo-out", "b", "--pcap", "a"}, "--bbo-out: "},
        {{"--duraton", "1m", "--pcap", "a"}, "unknown option '--duraton'; did you mean '--duration'?"},
        {{"--pcap", "a", "1m"}, "'1m' belongs to no option"},
    };
    for (const auto& [words, beginning] : faults) {
        EXPECT_EQ(refusal(words).find(beginning), 0u) << refusal(words);
    }
}

TEST(CaptureOptions, Mac_NeedsSixOctets) {
    Mac mac{};
    EXPECT_TRUE(parse_mac("00:11:22:33:44:55", mac));
    EXPECT_FALSE(parse_mac("00:11:22:33:44:5g", mac));
    EXPECT_FALSE(parse_mac("0:11:22:33:44:555", mac));
    EXPECT_FALSE(parse_mac("", mac));
}

}  // namespace
}  // namespace tessel::capture
