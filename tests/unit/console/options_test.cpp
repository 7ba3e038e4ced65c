#include "console/options.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel::console {
namespace {

int parse(Options& options, std::vector<const char*> words) {
    words.insert(words.begin(), "tessel-console");
    return parse_options(options, static_cast<int>(words.size()), words.data());
}

TEST(ConsoleOptions, Nothing_DefaultsOfTheFeedOnLoopback) {
    Options options;
    ASSERT_EQ(parse(options, {}), -1);
    EXPECT_EQ(options.reception.group, "239.255.25.177");
    EXPECT_EQ(options.reception.port, 25177);
    EXPECT_FALSE(options.reception.has_retrans);
    EXPECT_FALSE(options.reception.has_snapshot);
    EXPECT_EQ(options.control.feed, "127.0.0.1:25180");
    EXPECT_EQ(options.http_host, "127.0.0.1");
    EXPECT_EQ(options.http_port, 8080);
}

TEST(ConsoleOptions, EveryOption_Taken) {
    Options options;
    ASSERT_EQ(parse(options, {"--feed",      "239.1.1.1:4001", "--iface",        "10.0.0.2",    "--session",
                              "DAY",         "--retrans",      "127.0.0.1:1",    "--snapshot",  "127.0.0.1:2",
                              "--control",   "127.0.0.1:3",    "--relay",        "127.0.0.1:4", "--http",
                              "127.0.0.5:0", "--read-only",    "--metrics-open", "--textfile",  "/tmp"}),
              -1);
    EXPECT_EQ(options.reception.group, "239.1.1.1");
    EXPECT_EQ(options.reception.port, 4001);
    EXPECT_EQ(options.reception.iface, "10.0.0.2");
    EXPECT_EQ(options.reception.session, "DAY");
    EXPECT_TRUE(options.reception.has_retrans);
    EXPECT_TRUE(options.reception.has_snapshot);
    EXPECT_EQ(options.control.feed, "127.0.0.1:3");
    EXPECT_EQ(options.control.relay, "127.0.0.1:4");
    EXPECT_EQ(options.http_host, "127.0.0.5");
    EXPECT_EQ(options.http_port, 0);
    EXPECT_TRUE(options.read_only);
    EXPECT_TRUE(options.metrics_open);
    EXPECT_EQ(options.textfile, "/tmp");
}

TEST(ConsoleOptions, AddressOfOtherHosts_OnlyWithListenAnyway) {
    for (const char* http : {"0.0.0.0:8080", "10.0.0.2:8080", "128.0.0.1:80", "example.invalid:80"}) {
        tessel::testing::StderrCapture stderr_text;
        Options options;
        EXPECT_EQ(parse(options, {"--http", http}), 2) << http;
        EXPECT_NE(stderr_text.take().find("--listen-anyway"), std::string::npos);
        EXPECT_EQ(parse(options, {"--http", http, "--listen-anyway"}), -1) << http;
    }
    Options options;
    EXPECT_EQ(parse(options, {"--http", "localhost:8080"}), -1);
    EXPECT_EQ(parse(options, {"--http", "127.9.9.9:8080"}), -1);
}

TEST(ConsoleOptions, WrongValues_OneLineThatNamesThem) {
    const std::vector<std::vector<const char*>> wrong = {
        {"--feed", "239.1.1.1"},
        {"--feed", "10.0.0.1:5"},
        {"--feed", "239.1.1.1:0"},
        {"--feed", ":5"},
        {"--feed", "239.1.1.1:x"},
        {"--iface", "eth0"},
        {"--retrans", "nowhere"},
        {"--snapshot", "1.2.3.4:0"},
        {"--control", "1.2.3.4:65536"},
        {"--control", ""},
        {"--relay", "1.2.3.4"},
        {"--http", "127.0.0.1"},
        {"--http", "127.0.0.1:"},
        {"--http", "127.0.0.1:-1"},
        {"--http", "127.0.0.1:65536"},
        {"--http", "127.0.0.1:1x"},
        {"--http", ":80"},
        {"--nothing"},
        {"words"},
    };
    for (const std::vector<const char*>& words : wrong) {
        tessel::testing::StderrCapture stderr_text;
        Options options;
        EXPECT_EQ(parse(options, words), 2) << words[0];
        const std::string text = stderr_text.take();
        EXPECT_EQ(text.find("tessel-console: "), 0u) << text;
        EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
        EXPECT_LE(text.size(), 201u);
        EXPECT_NE(text.find(words[0]), std::string::npos) << text;
    }
}

}  // namespace
}  // namespace tessel::console
