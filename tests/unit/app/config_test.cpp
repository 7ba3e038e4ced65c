#include "app/config.h"

#include <gtest/gtest.h>

#include <vector>

namespace tessel {
namespace {

struct Parsed {
    bool good = false;
    FeedConfig config;
    std::string error;
};

Parsed parse(const std::vector<const char*>& arguments) {
    Parsed parsed;
    parsed.good =
        parse_command_line(static_cast<int>(arguments.size()), arguments.data(), parsed.config, parsed.error);
    return parsed;
}

TEST(CommandLine, NoArguments_EveryDefaultApplies) {
    const Parsed parsed = parse({});
    ASSERT_TRUE(parsed.good);
    const FeedConfig& config = parsed.config;
    EXPECT_EQ(config.mcast, "239.255.25.177");
    EXPECT_EQ(config.port, 25177);
    EXPECT_EQ(config.iface, "127.0.0.1");
    EXPECT_EQ(config.retrans_port, 25178);
    EXPECT_EQ(config.snapshot_port, 25179);
    EXPECT_EQ(config.session, "UTPBENCH01");
    EXPECT_EQ(config.symbols, "AAPL:190.00,MSFT:410.00,TSLA:250.00");
    EXPECT_EQ(config.participants, "QNPZKVD");
    EXPECT_EQ(config.interval_ms, 100);
    EXPECT_EQ(config.step_bps, 0.8);
    EXPECT_EQ(config.seed, 7u);
    EXPECT_EQ(config.book_out, "");
    EXPECT_EQ(config.bbo_out, "");
    EXPECT_EQ(config.drop_every, 0u);
    EXPECT_EQ(config.drop_burst, "");
    EXPECT_EQ(config.dup_every, 0u);
    EXPECT_EQ(config.reorder_every, 0u);
    EXPECT_EQ(config.truth_out, "");
    EXPECT_EQ(config.control_port, 0);
    EXPECT_FALSE(config.quiet);
}

TEST(CommandLine, EveryOption_SetsItsField) {
    const Parsed parsed = parse({"--mcast",         "239.1.2.3",
                                 "--port",          "1",
                                 "--iface",         "10.0.0.1",
                                 "--retrans-port",  "2",
                                 "--snapshot-port", "3",
                                 "--session",       "S",
                                 "--symbols",       "IBM",
                                 "--participants",  "QN",
                                 "--interval-ms",   "-1",
                                 "--step-bps",      "-2.5",
                                 "--seed",          "18446744073709551615",
                                 "--book-out",      "b",
                                 "--bbo-out",       "c",
                                 "--drop-every",    "4",
                                 "--drop-burst",    "5:6",
                                 "--dup-every",     "7",
                                 "--reorder-every", "8",
                                 "--truth-out",     "t",
                                 "--control-port",  "9",
                                 "--quiet"});
    ASSERT_TRUE(parsed.good) << parsed.error;
    const FeedConfig& config = parsed.config;
    EXPECT_EQ(config.mcast, "239.1.2.3");
    EXPECT_EQ(config.port, 1);
    EXPECT_EQ(config.iface, "10.0.0.1");
    EXPECT_EQ(config.retrans_port, 2);
    EXPECT_EQ(config.snapshot_port, 3);
    EXPECT_EQ(config.session, "S");
    EXPECT_EQ(config.symbols, "IBM");
    EXPECT_EQ(config.participants, "QN");
    EXPECT_EQ(config.interval_ms, -1);
    EXPECT_EQ(config.step_bps, -2.5);
    EXPECT_EQ(config.seed, 18446744073709551615u);
    EXPECT_EQ(config.book_out, "b");
    EXPECT_EQ(config.bbo_out, "c");
    EXPECT_EQ(config.drop_every, 4u);
    EXPECT_EQ(config.drop_burst, "5:6");
    EXPECT_EQ(config.dup_every, 7u);
    EXPECT_EQ(config.reorder_every, 8u);
    EXPECT_EQ(config.truth_out, "t");
    EXPECT_EQ(config.control_port, 9);
    EXPECT_TRUE(config.quiet);
}

TEST(CommandLine, LongSession_IsCutToTenCharacters) {
    EXPECT_EQ(parse({"--session", "ABCDEFGHIJKLMN"}).config.session, "ABCDEFGHIJ");
    EXPECT_EQ(parse({"--session", "ABC"}).config.session, "ABC") << "a short one is not padded";
    EXPECT_EQ(parse({"--session", ""}).config.session, "");
}

TEST(CommandLine, OptionAsLastArgument_NeedsAValue) {
    const Parsed parsed = parse({"--quiet", "--port"});
    EXPECT_FALSE(parsed.good);
    EXPECT_EQ(parsed.error, "--port needs a value\n");
}

TEST(CommandLine, WordAfterQuiet_IsUnknown) {
    const Parsed parsed = parse({"--quiet", "extra"});
    EXPECT_FALSE(parsed.good);
    EXPECT_EQ(parsed.error, "unknown flag extra\n");
}

TEST(CommandLine, HelpShortOptionsAndEqualsForms_AreUnknown) {
    for (const char* argument : {"--help", "-h", "--port=5", "--por", "--ports", "", "-port"}) {
        const Parsed parsed = parse({argument});
        EXPECT_FALSE(parsed.good);
        EXPECT_EQ(parsed.error, std::string("unknown flag ") + argument + "\n");
    }
}

TEST(CommandLine, ValueThatLooksLikeAnOption_IsAccepted) {
    EXPECT_EQ(parse({"--session", "--quiet"}).config.session, "--quiet");
}

TEST(CommandLine, RepeatedOption_TheLastOccurrenceWins) {
    EXPECT_EQ(parse({"--seed", "1", "--seed", "2"}).config.seed, 2u);
}

TEST(CommandLine, EmptyPath_TurnsTheFileOff) {
    EXPECT_EQ(parse({"--truth-out", "t", "--truth-out", ""}).config.truth_out, "");
}

TEST(CommandLine, LargePortOrTrailingText_Low16BitsOfTheNumber) {
    EXPECT_EQ(parse({"--port", "65537"}).config.port, 1);
    EXPECT_EQ(parse({"--port", "12x"}).config.port, 12);
    EXPECT_EQ(parse({"--port", "-1"}).config.port, 65535);
}

TEST(CommandLine, LargeCount_Low32BitsOfTheNumber) {
    EXPECT_EQ(parse({"--drop-every", "4294967298"}).config.drop_every, 2u);
    EXPECT_EQ(parse({"--dup-every", "-1"}).config.dup_every, 4294967295u);
}

TEST(CommandLine, BadNumber_LineNamesOptionAndConversion) {
    const struct {
        const char* option;
        const char* value;
        const char* error;
    } rows[] = {
        {"--port", "abc", "tessel: --port: stoi: not a number: 'abc'\n"},
        {"--port", "99999999999", "tessel: --port: stoi: out of range: '99999999999'\n"},
        {"--retrans-port", "", "tessel: --retrans-port: stoi: not a number: ''\n"},
        {"--snapshot-port", "x", "tessel: --snapshot-port: stoi: not a number: 'x'\n"},
        {"--control-port", "x", "tessel: --control-port: stoi: not a number: 'x'\n"},
        {"--interval-ms", "2147483648", "tessel: --interval-ms: stoi: out of range: '2147483648'\n"},
        {"--step-bps", "a", "tessel: --step-bps: stod: not a number: 'a'\n"},
        {"--seed", "18446744073709551616", "tessel: --seed: stoull: out of range: '18446744073709551616'\n"},
        {"--drop-every", "z", "tessel: --drop-every: stoul: not a number: 'z'\n"},
        {"--dup-every", "z", "tessel: --dup-every: stoul: not a number: 'z'\n"},
        {"--reorder-every", "z", "tessel: --reorder-every: stoul: not a number: 'z'\n"},
    };
    for (const auto& row : rows) {
        const Parsed parsed = parse({row.option, row.value});
        EXPECT_FALSE(parsed.good) << row.option;
        EXPECT_EQ(parsed.error, row.error);
    }
}

TEST(DropBurst, SeveralColons_SplitsAtTheFirst) {
    const struct {
        const char* text;
        std::uint64_t start;
        std::uint32_t length;
    } rows[] = {{"", 0, 0},
                {"10", 10, 1},
                {"10:0", 10, 0},
                {"500:3", 500, 3},
                {"1:2:3", 1, 2},
                {"7x:8y", 7, 8},
                {"18446744073709551615", 18446744073709551615u, 1},
                {"1:4294967297", 1, 1}};
    for (const auto& row : rows) {
        std::uint64_t start = 99;
        std::uint32_t length = 99;
        std::string error;
        EXPECT_TRUE(split_drop_burst(row.text, start, length, error)) << row.text;
        EXPECT_EQ(start, row.start) << row.text;
        EXPECT_EQ(length, row.length) << row.text;
    }
}

TEST(DropBurst, BadNumber_LineNamesTheConversion) {
    std::uint64_t start = 0;
    std::uint32_t length = 0;
    std::string error;
    EXPECT_FALSE(split_drop_burst(":3", start, length, error));
    EXPECT_EQ(error, "tessel: --drop-burst: stoull: not a number: ''\n");
    EXPECT_FALSE(split_drop_burst("5:", start, length, error));
    EXPECT_EQ(error, "tessel: --drop-burst: stoul: not a number: ''\n");
    EXPECT_FALSE(split_drop_burst("18446744073709551616", start, length, error));
    EXPECT_EQ(error, "tessel: --drop-burst: stoull: out of range: '18446744073709551616'\n");
}

}  // namespace
}  // namespace tessel
