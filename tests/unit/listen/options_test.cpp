#include "listen/options.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::listen {
namespace {

TEST(LineOption, GroupPortAndInterface_AreTakenApart) {
    LineOption line;
    std::string error;
    ASSERT_TRUE(parse_line_option(line, "A-1=239.1.1.1:4001@10.0.0.7", error)) << error;
    EXPECT_EQ(line.name, "A-1");
    EXPECT_EQ(line.group, "239.1.1.1");
    EXPECT_EQ(line.port, 4001);
    EXPECT_EQ(line.iface, "10.0.0.7");
    ASSERT_TRUE(parse_line_option(line, "B=239.1.1.1:4002", error)) << error;
    EXPECT_EQ(line.iface, "");
}

TEST(LineOption, WhatIsWrong_IsNamedInAShortLine) {
    const std::string long_name(line_name_max + 1, 'x');
    for (const std::string& text :
         {std::string(), std::string("="), std::string("A"), std::string("=239.1.1.1:1"),
          std::string("A B=239.1.1.1:1"), long_name + "=239.1.1.1:1", std::string("A=10.0.0.1:1"),
          std::string("A=239.1.1.1"), std::string("A=239.1.1.1:"), std::string("A=239.1.1.1:0"),
          std::string("A=239.1.1.1:65536"), std::string("A=239.1.1.1:1@"), std::string("A=239.1.1.1:1@eth0"),
          std::string("A=239.1.1.1:1x@10.0.0.1"), std::string("A=239.1.1.1:1@10.0.0.1@")}) {
        LineOption line;
        std::string error;
        EXPECT_FALSE(parse_line_option(line, text, error)) << text;
        EXPECT_NE(error, "") << text;
        EXPECT_LT(error.size(), 180u) << error;
    }
}

int status_of(Options& options, std::vector<const char*> words) {
    words.insert(words.begin(), "tessel-listen");
    return parse_options(options, static_cast<int>(words.size()), words.data());
}

TEST(Options, Lines_AreKeptInTheirOrder) {
    Options options;
    EXPECT_EQ(
        status_of(options, {"--line", "A=239.1.1.1:1", "--line", "B=239.1.1.2:2", "--patience-ms", "7"}), -1);
    ASSERT_EQ(options.lines.size(), 2u);
    EXPECT_EQ(options.lines[1].name, "B");
    EXPECT_EQ(options.patience_ms, 7);
}

TEST(Options, LinesThatDoNotGoTogether_AreRefused) {
    Options twice;
    EXPECT_EQ(status_of(twice, {"--line", "A=239.1.1.1:1", "--line", "A=239.1.1.2:2"}), 2);
    Options both;
    EXPECT_EQ(status_of(both, {"--line", "A=239.1.1.1:1", "--port", "5"}), 2);
    Options many;
    std::vector<std::string> texts;
    for (int at = 0; at < 17; ++at) {
        texts.push_back("L" + std::to_string(at) + "=239.1.1.1:" + std::to_string(1000 + at));
    }
    std::vector<const char*> words;
    for (const std::string& text : texts) {
        words.insert(words.end(), {"--line", text.c_str()});
    }
    EXPECT_EQ(status_of(many, words), 2);
}

TEST(Options, LatencyOut_ImpliesLatency) {
    Options options;
    EXPECT_EQ(status_of(options, {"--latency-out", "/tmp"}), -1);
    EXPECT_TRUE(options.latency);
}

}  // namespace
}  // namespace tessel::listen
