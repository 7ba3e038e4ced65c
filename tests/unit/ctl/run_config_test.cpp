#include "ctl/run_config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tessel::ctl {
namespace {

using Lines = std::vector<std::string>;

RunConfig read(std::string_view text, Lines& faults) {
    RunConfig config;
    const bool taken = read_run_config(text, "day.toml", "", config, faults);
    EXPECT_EQ(taken, faults.empty());
    return config;
}

RunConfig good(std::string_view text) {
    Lines faults;
    const RunConfig config = read(text, faults);
    EXPECT_EQ(faults, Lines{});
    return config;
}

Lines faults_of(std::string_view text) {
    Lines faults;
    read(text, faults);
    return faults;
}

TEST(RunConfig, EveryKey_BecomesItsOption) {
    const RunConfig config = good(R"(
[feed]
mcast = "239.1.2.3"
port = 30000
iface = "10.0.0.1"
retrans_port = 30001
snapshot_port = 30002
control_port = 30003
session = "DAY"
symbols = ["AAPL:190.00", "MSFT:410.5", "IBM"]
participants = "QN"
interval_ms = -1
step_bps = 0.5
seed = 9
book_out = "b"
bbo_out = "c"
truth_out = "t"
quiet = true
[faults]
drop_every = 10
drop_burst = "500:3"
dup_every = 0
reorder_every = 4294967295
)");
    EXPECT_EQ(feed_arguments(config), (Lines{"--mcast",         "239.1.2.3",
                                             "--port",          "30000",
                                             "--iface",         "10.0.0.1",
                                             "--retrans-port",  "30001",
                                             "--snapshot-port", "30002",
                                             "--session",       "DAY",
                                             "--symbols",       "AAPL:190.00,MSFT:410.5,IBM",
                                             "--participants",  "QN",
                                             "--interval-ms",   "-1",
                                             "--step-bps",      "0.5",
                                             "--seed",          "9",
                                             "--book-out",      "b",
                                             "--bbo-out",       "c",
                                             "--drop-every",    "10",
                                             "--drop-burst",    "500:3",
                                             "--dup-every",     "0",
                                             "--reorder-every", "4294967295",
                                             "--truth-out",     "t",
                                             "--control-port",  "30003",
                                             "--quiet"}));
    EXPECT_FALSE(config.has_scenario);
}

TEST(RunConfig, Scenario_BecomesItsText) {
    const RunConfig config =
        good("[scenario]\nhalt_secs = 3\nname = \"open halt=1\"\nhalt_after = 5\nmwcb_level = 3\n");
    EXPECT_EQ(scenario_text(config), "name=open halt=1,halt_after=5,halt_secs=3,mwcb_level=3");
    EXPECT_TRUE(config.has_scenario);
    EXPECT_TRUE(good("[scenario]\n").has_scenario);
    EXPECT_EQ(feed_arguments(config), Lines{});
}

TEST(RunConfig, OtherWritings_AreRead) {
    EXPECT_EQ(feed_arguments(good("[feed]\nseed = \"18446744073709551615\"\nquiet = false\nstep_bps = 1\n")),
              (Lines{"--step-bps", "1", "--seed", "18446744073709551615"}));
    EXPECT_EQ(feed_arguments(good("faults.drop_burst = 500\n")), (Lines{"--drop-burst", "500"}));
    EXPECT_EQ(feed_arguments(good("")), Lines{});
}

TEST(RunConfig, UnknownKey_NamesTheNearestRightOne) {
    EXPECT_EQ(faults_of("[feed]\n\nintervall_ms = 5\n"),
              Lines{"day.toml:3: feed.intervall_ms: unknown key; did you mean 'interval_ms'?"});
    EXPECT_EQ(faults_of("[feed]\nretrans-port = 5\n"),
              Lines{"day.toml:2: feed.retrans-port: unknown key; did you mean 'retrans_port'?"});
    EXPECT_EQ(faults_of("[feed]\ndrop_every = 5\n"),
              Lines{"day.toml:2: feed.drop_every: this key belongs into [faults]"});
    EXPECT_EQ(faults_of("port = 5\n"), Lines{"day.toml:1: port: this key belongs into [feed]"});
    EXPECT_EQ(faults_of("[faults]\nhalt_aftr = 5\n"),
              Lines{"day.toml:2: faults.halt_aftr: unknown key; did you mean 'halt_after' of [scenario]?"});
    EXPECT_EQ(faults_of("[feeed]\nport = 5\n"),
              Lines{"day.toml:2: feeed.port: unknown table [feeed]; did you mean 'feed'?"});
    EXPECT_EQ(faults_of("[feeed]\n"),
              Lines{"day.toml:1: feeed: unknown table [feeed]; did you mean 'feed'?"});
    EXPECT_EQ(faults_of("[feed]\nzzzzzzz = 5\n"),
              Lines{"day.toml:2: feed.zzzzzzz: unknown key: [feed] has no such setting"});
}

TEST(RunConfig, BadValues_NameLineAndKey) {
    EXPECT_EQ(faults_of("[feed]\nport = 70000\n"),
              Lines{"day.toml:2: feed.port: '70000' is out of range: 1 to 65535"});
    EXPECT_EQ(faults_of("[feed]\nport = \"25177\"\n"), Lines{"day.toml:2: feed.port: write a whole number"});
    EXPECT_EQ(
        faults_of("[feed]\nmcast = \"10.0.0.1\"\n"),
        Lines{"day.toml:2: feed.mcast: '10.0.0.1' is no multicast address: 224.0.0.0 to 239.255.255.255"});
    EXPECT_EQ(faults_of("[feed]\niface = \"eth0\"\n"),
              Lines{"day.toml:2: feed.iface: 'eth0' is no IPv4 address"});
    EXPECT_EQ(faults_of("[feed]\nquiet = 1\n"), Lines{"day.toml:2: feed.quiet: write true or false"});
    EXPECT_EQ(faults_of("[feed]\nsymbols = \"AAPL:1\"\n"),
              Lines{"day.toml:2: feed.symbols: write an array of texts: [\"AAPL:190.00\", \"MSFT:410.00\"]"});
    EXPECT_EQ(faults_of("[scenario]\nmwcb_level = 4\nhalt_after = -1\n"),
              (Lines{"day.toml:2: scenario.mwcb_level: '4' is out of range: 0 to 3",
                     "day.toml:3: scenario.halt_after: '-1' is out of range: 0 to 4294967295"}));
    EXPECT_EQ(faults_of("[feed]\nport = = 3\n")[0].substr(0, 20), "day.toml:2: no TOML:");
}

TEST(RunConfig, BadSymbols_NameTheirOwnLine) {
    EXPECT_EQ(faults_of("[feed]\nsymbols = [\n  \"AAPL:190.00\",\n  \"MSFT:abc\",\n  \"AAPL:3\"]\n"),
              (Lines{"day.toml:4: feed.symbols: price of MSFT: 'abc' is no number",
                     "day.toml:5: feed.symbols: symbol 'AAPL' is there twice"}));
}

TEST(RunConfig, SymbolsFile_IsReadBesideTheConfiguration) {
    const std::string folder = ::testing::TempDir() + "run_config_test";
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/all.txt") << "# symbols\nAAPL:190.00\nMSFT 410.00 # blue\n\nIBM,\t1.5\r\nX\n";
    std::ofstream(folder + "/bad.txt") << "AAPL:190.00\nMSFT:-3\n";
    std::ofstream(folder + "/day.toml") << "[feed]\nsymbols_file = \"all.txt\"\n";
    RunConfig config;
    Lines faults;
    EXPECT_TRUE(read_run_config_file(folder + "/day.toml", config, faults));
    EXPECT_EQ(feed_arguments(config), (Lines{"--symbols", "AAPL:190.00,MSFT:410.00,IBM:1.5,X"}));
    config = {};
    EXPECT_FALSE(read_run_config("[feed]\nsymbols_file = \"bad.txt\"\n", "t", folder, config, faults));
    EXPECT_EQ(faults, Lines{folder + "/bad.txt:2: price of MSFT: '-3' is out of range: 0.01 to 1000000000"});
    std::filesystem::remove_all(folder);
    EXPECT_EQ(faults_of("[feed]\nsymbols_file = \"gone.txt\"\n"),
              Lines{"day.toml:2: feed.symbols_file: gone.txt: No such file or directory"});
    EXPECT_EQ(faults_of("[feed]\nsymbols = []\nsymbols_file = \"/dev/null\"\n"),
              Lines{"day.toml:3: feed.symbols_file: symbols and symbols_file exclude each other"});
}

TEST(RunConfig, Options_WinOverTheFileAndAreCheckedAsStrictly) {
    RunConfig config = good("[feed]\nport = 30000\nseed = 1\n");
    Lines faults;
    EXPECT_TRUE(add_options({"--port", "30001", "--quiet", "--truth-out", ""}, config, faults));
    EXPECT_EQ(feed_arguments(config),
              (Lines{"--port", "30001", "--seed", "1", "--truth-out", "", "--quiet"}));
    EXPECT_EQ(value_or(config, "feed", "port", "1"), "30001");
    EXPECT_EQ(value_or(config, "feed", "iface", "127.0.0.1"), "127.0.0.1");
    EXPECT_FALSE(add_options({"--port", "12x"}, config, faults));
    EXPECT_FALSE(add_options({"--sed", "1"}, config, faults));
    EXPECT_FALSE(add_options({"--seed"}, config, faults));
    EXPECT_EQ(faults, (Lines{"--port: '12x' is no whole number",
                             "unknown option '--sed'; did you mean '--seed'?", "--seed needs a value"}));
}

TEST(RunConfig, ManyFaults_AreListedToALimit) {
    std::string text = "[feed]\n";
    for (int at = 0; at < 100; ++at) {
        text += "zz" + std::to_string(at) + " = 1\n";
    }
    EXPECT_EQ(faults_of(text).size(), faults_listed_max);
}

}  // namespace
}  // namespace tessel::ctl
