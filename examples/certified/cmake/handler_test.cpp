// The handler beside a feed that each test starts and steers by itself.
#include <gtest/gtest.h>
#include <tessel/testing/feed.h>

#include <sys/wait.h>
#include <csignal>
#include <string>

namespace {

using tessel::testing::Feed;
using tessel::testing::text_of;
using tessel::testing::wait_until;

// The handler, from its start to its end.
struct Handler {
    explicit Handler(const Feed& feed)
        : output(feed.folder() / "out.jsonl"),
          child(tessel::testing::start({HANDLER, feed.group(), std::to_string(feed.port()), feed.iface(),
                                        feed.session(), feed.retrans(), output},
                                       feed.folder() / "handler.log")) {
        // It has its file once its sockets are open.
        EXPECT_TRUE(wait_until([&] { return std::filesystem::exists(output); }));
    }
    void stop() const {
        kill(child, SIGINT);
        waitpid(child, nullptr, 0);
    }
    std::string output;
    pid_t child;
};

TEST(Handler, LostPackets_AreRecovered) {
    Feed feed({.symbols = "AAPL:190.00,MSFT:410.00", .interval_ms = 10, .options = {"--drop-every", "5"}});
    const Handler handler(feed);
    feed.wait_for_messages(300);
    const std::uint64_t last = feed.silence();
    wait_until(
        [&] { return text_of(handler.output).find("\"seq\":" + std::to_string(last)) != std::string::npos; },
        5);
    handler.stop();
    const tessel::testing::Judgment judgment = tessel::testing::judge(feed.truth(), handler.output);
    EXPECT_TRUE(judgment.agrees) << judgment.text;
}

TEST(Handler, Halt_IsWritten) {
    Feed feed({.symbols = "AAPL:190.00", .interval_ms = 20});
    const Handler handler(feed);
    EXPECT_EQ(feed.command("halt AAPL"), "ok halt AAPL");
    EXPECT_TRUE(
        wait_until([&] { return text_of(handler.output).find("\"status\":\"H\"") != std::string::npos; }));
    handler.stop();
    EXPECT_EQ(feed.close(), 0);
}

TEST(Feed, WrongOption_ThrowsWithTheFeedsWords) {
    try {
        const Feed feed({.options = {"--nonsense"}});
        FAIL() << "it started";
    } catch (const std::runtime_error& failure) {
        EXPECT_NE(std::string(failure.what()).find("--nonsense"), std::string::npos) << failure.what();
    }
}

}  // namespace
