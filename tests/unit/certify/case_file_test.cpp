#include "certify/case_file.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

struct Read {
    Case out;
    std::vector<std::string> faults;
    bool good = false;
};

Read read(const std::string& text) {
    Read result;
    result.good = read_case(text, "loss/x.toml", "loss", "x", result.out, result.faults);
    return result;
}

std::string only_fault(const std::string& text) {
    const Read result = read(text);
    EXPECT_FALSE(result.good);
    return result.faults.empty() ? "" : result.faults.front();
}

TEST(CaseFile, Everything_IsRead) {
    const Read result = read(R"(title = "A title"
proves = "What it proves."
why = "Why it matters."
page = "docs/a.md#b"
[feed]
symbols = ["AAPL:190.00", "MSFT:410.00"]
interval_ms = 20
[faults]
drop_every = 50
[scenario]
halt_after = 5
[run]
seconds = 4.5
start = "late"
late_after = 2
timeline = """
+0.5s halt AAPL
at seq 400 drop 3
"""
restart_at = [1.5, 3]
feeds = 4
same_session = true
busy_seconds = 1
[[traffic]]
kind = "foreign_session"
every = 20
[[traffic]]
kind = "empty"
[expect]
members = ["nbbo", "bid"]
compare = ["nbbo", "bid", "ask"]
missing = "dropped"
mismatched = "after_loss"
from_first = true
wait_seconds = 3
)");
    ASSERT_TRUE(result.good) << result.faults.front();
    const Case& out = result.out;
    EXPECT_EQ(out.name, "loss/x");
    EXPECT_EQ(out.group, "loss");
    EXPECT_EQ(out.title + out.proves + out.why + out.page,
              "A titleWhat it proves.Why it matters.docs/a.md#b");
    const std::vector<std::string> options = {
        "--symbols", "AAPL:190.00,MSFT:410.00", "--interval-ms", "20", "--drop-every", "50"};
    EXPECT_EQ(out.feed_options, options);
    EXPECT_EQ(out.scenario, "halt_after=5");
    EXPECT_EQ(out.seconds, 4.5);
    EXPECT_EQ(out.start, Start::late);
    EXPECT_EQ(out.late_after, 2);
    EXPECT_EQ(out.timeline.timed.size(), 1U);
    EXPECT_EQ(out.timeline.by_sequence.size(), 1U);
    EXPECT_EQ(out.restart_at, (std::vector<double>{1.5, 3}));
    EXPECT_EQ(out.feeds, 4U);
    EXPECT_TRUE(out.same_session);
    EXPECT_EQ(out.busy_seconds, 1);
    ASSERT_EQ(out.traffic.size(), 2U);
    EXPECT_EQ(out.traffic[0].kind, "foreign_session");
    EXPECT_EQ(out.traffic[0].values.at("every"), "20");
    EXPECT_EQ(out.traffic[1].kind, "empty");
    EXPECT_EQ(out.expect.members, (std::vector<std::string>{"nbbo", "bid"}));
    EXPECT_EQ(out.expect.compare.size(), 3U);
    EXPECT_EQ(out.expect.missing, Missing::dropped);
    EXPECT_EQ(out.expect.mismatched, Mismatched::after_loss);
    EXPECT_TRUE(out.expect.from_first);
    EXPECT_EQ(out.expect.wait_seconds, 3);
}

TEST(CaseFile, ALoadCase_HasRates) {
    const Read result =
        read("title = \"x\"\n[load]\nrates = [1000, 50000]\nbisect = true\npass_rate = 1000\n");
    ASSERT_TRUE(result.good);
    EXPECT_EQ(result.out.load.rates, (std::vector<std::uint64_t>{1000, 50000}));
    EXPECT_TRUE(result.out.load.bisect);
    EXPECT_EQ(result.out.load.pass_rate, 1000U);
}

TEST(CaseFile, ATitle_IsEnough) {
    const Read result = read("title = \"x\"\n");
    ASSERT_TRUE(result.good);
    EXPECT_EQ(result.out.seconds, 3);
    EXPECT_EQ(result.out.start, Start::before);
    EXPECT_EQ(result.out.feeds, 1U);
    EXPECT_EQ(result.out.expect.wait_seconds, 2);
}

TEST(CaseFile, WhatIsWrong_IsNamedWithItsLine) {
    const std::string title = "title = \"x\"\n";
    EXPECT_EQ(only_fault("[run]\nseconds = 1\n"),
              "loss/x.toml:1: title: there is none; write title = \"what the case is about\"");
    EXPECT_EQ(only_fault(title + "[run]\nsecond = 1\n"),
              "loss/x.toml:3: run.second: unknown key; did you mean 'seconds'?");
    EXPECT_EQ(only_fault(title + "[rnu]\nseconds = 1\n"),
              "loss/x.toml:3: rnu.seconds: unknown table; did you mean 'run'?");
    EXPECT_EQ(only_fault(title + "[run]\nseconds = 601\n"),
              "loss/x.toml:3: run.seconds: write a number of seconds, 0.1 to 600");
    EXPECT_EQ(only_fault(title + "[run]\nstart = \"soon\"\n"),
              "loss/x.toml:3: run.start: write \"before\" or \"late\"");
    EXPECT_EQ(only_fault(title + "[run]\nfeeds = 9\n"),
              "loss/x.toml:3: run.feeds: write a whole number, 1 to 8");
    EXPECT_EQ(only_fault(title + "[feed]\nseed = 4\n"),
              "loss/x.toml:3: feed.seed: this is chosen anew for each run of the case; leave it out");
    EXPECT_EQ(only_fault(title + "[expect]\nmembers = [\"nbo\"]\n"),
              "loss/x.toml:3: expect.members: no truth line has the member 'nbo'; did you mean 'nbbo'?");
    EXPECT_EQ(only_fault(title + "[traffic]\nkind = \"empty\"\n"),
              "loss/x.toml:3: traffic.kind: write [[traffic]], in two brackets");
    EXPECT_EQ(only_fault(title + "[[run]]\nseconds = 1\n"),
              "loss/x.toml:3: run.seconds: write [run], in one bracket");
}

TEST(CaseFile, NumbersThatMustRise_AreHeldToIt) {
    for (const char* const list : {"[2, 1]", "[1, 1]", "[0]", "[601]", "[\"1\"]", "1"}) {
        const std::string text = std::string("title = \"x\"\n[run]\nrestart_at = ") + list + "\n";
        EXPECT_NE(only_fault(text).find("rising numbers"), std::string::npos) << list;
    }
}

TEST(CaseFile, ContradictionsOfSymbols_AreRefused) {
    EXPECT_NE(only_fault("title = \"x\"\n[feed]\nsymbols = [\"A:1\"]\n[run]\ngenerated_symbols = 5\n")
                  .find("run.generated_symbols"),
              std::string::npos);
    EXPECT_NE(
        only_fault("title = \"x\"\n[feed]\nsymbols = [\"A:1\"]\n[load]\nrates = [1000]\n").find("load.rates"),
        std::string::npos);
    EXPECT_NE(only_fault("title = \"x\"\n[load]\nbisect = true\n").find("load.rates"), std::string::npos);
}

TEST(CaseFile, NamesOfGroupsAndCases_AreWords) {
    EXPECT_TRUE(is_case_word("one_packet-2"));
    for (const char* const bad : {"", "-x", "a b", "a/b", "..", "\xc3\xa4"}) {
        EXPECT_FALSE(is_case_word(bad)) << bad;
    }
}

}  // namespace
}  // namespace tessel::certify
