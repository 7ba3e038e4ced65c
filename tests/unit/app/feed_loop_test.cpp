#include "app/feed.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_u64;
using testing::letters;
using testing::packet_messages;
using testing::read_file;
using testing::StderrCapture;
using testing::TempFolder;

constexpr std::uint64_t start_ms = 1'000'000;

struct LoopOptions {
    std::string scenario = {};
    std::string symbols = "AAPL:190.00,MSFT:410.00,TSLA:250.00";
    std::int32_t interval_ms = 100;
    std::string truth_out = {};
    std::string book_out = {};
    std::string bbo_out = {};
    bool with_control = false;
};

// A feed after its start, on a simulated clock, with a sink instead of the multicast socket and its services
// on ports that the system picks.
struct LoopFeed {
    explicit LoopFeed(const LoopOptions& options = {}) {
        feed.clock.simulated = true;
        feed.clock.simulated_wall_ns = 1'700'000'000'000'000'000;
        feed.clock.simulated_steady_ms = start_ms;
        feed.config.truth_out = options.truth_out;
        feed.config.book_out = options.book_out;
        feed.config.bbo_out = options.bbo_out;
        seed_random(feed.random, 7);
        reset_publisher(feed.publisher, feed.clock, "UTPBENCH01");
        feed.publisher.sink = {collect, this};
        feed.scenario = parse_scenario(options.scenario);
        init_engine(feed.engine, feed.publisher, feed.random, feed.scenario, feed.clock, "QNPZKVD", 0.8,
                    true);
        if (!options.truth_out.empty()) {
            open_truth_log(feed.engine.truth, options.truth_out);
        }
        std::string error;
        EXPECT_TRUE(add_instruments(feed.engine, options.symbols, error)) << error;
        EXPECT_TRUE(open_listener(feed.snapshot, 0, error)) << error;
        if (options.with_control) {
            feed.control_socket = open_control_channel(0);
        }
        feed.interval_ms = options.interval_ms;
        feed.start_ms = start_ms;
        feed.last_tick_ms = start_ms;
        feed.last_stats_ms = start_ms;
        feed.last_summary_ms = start_ms;
        feed.publisher.last_flush_ms = static_cast<std::int64_t>(start_ms);
        log.take();
    }
    ~LoopFeed() {
        close_truth_log(feed.engine.truth);
        for (const SnapshotConnection& connection : feed.snapshot.connections) {
            close(connection.fd);
        }
        close(feed.snapshot.listener);
        close(feed.control_socket);
        close(feed.reserve.fd);
    }
    LoopFeed(const LoopFeed&) = delete;
    LoopFeed& operator=(const LoopFeed&) = delete;

    static void collect(void* context, const unsigned char* packet, std::size_t length) {
        static_cast<LoopFeed*>(context)->packets.emplace_back(packet, packet + length);
    }
    void pass_at(std::uint64_t after_ms) {
        feed.clock.simulated_steady_ms = start_ms + after_ms;
        run_one_pass(feed, start_ms + after_ms);
        list_inputs(feed);
    }
    // The times, in milliseconds after the start, of the passes that changed the value; a pass every step_ms.
    std::vector<std::uint64_t> changes_until(std::uint64_t end_ms,
                                             const std::function<std::uint64_t()>& value,
                                             std::uint64_t step_ms = 1) {
        std::vector<std::uint64_t> times;
        std::uint64_t last = value();
        for (std::uint64_t at = 0; at <= end_ms; at += step_ms) {
            pass_at(at);
            if (value() != last) {
                times.push_back(at);
                last = value();
            }
        }
        return times;
    }
    // A TCP connection to the Snap-Shot service.
    int connect_client() const {
        sockaddr_in address{};
        socklen_t bytes = sizeof address;
        EXPECT_EQ(getsockname(feed.snapshot.listener, reinterpret_cast<sockaddr*>(&address), &bytes), 0);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), bytes), 0);
        return fd;
    }
    bool waits_for(int fd) const {
        return std::any_of(feed.poll_set.begin(), feed.poll_set.end(),
                           [fd](const pollfd& each) { return each.fd == fd && (each.events & POLLIN) != 0; });
    }

    StderrCapture log;
    const std::unique_ptr<Feed> owner = std::make_unique<Feed>();
    Feed& feed = *owner;
    std::vector<Bytes> packets;
};

// What the service sends to a client in memory.
struct PeerInMemory {
    PeerInMemory() {
        peer.sink.write = [](void* context, const unsigned char* bytes, std::size_t size) {
            auto& taken = *static_cast<Bytes*>(context);
            taken.insert(taken.end(), bytes, bytes + size);
        };
        peer.sink.context = &sent;
    }
    void log_in() {
        peer.input = {0, 47, 'L'};
        peer.input.resize(2 + 47, ' ');
        peer.input[3] = 'U';
    }
    SnapshotPeer peer;
    Bytes sent;
};

std::size_t count_of(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// ------------------------------------------------------------------------------------ when what is due

TEST(FeedLoop, PassEveryMillisecond_TicksAtTheInterval) {
    LoopFeed loop({.interval_ms = 30});
    const std::vector<std::uint64_t> times =
        loop.changes_until(100, [&loop] { return loop.feed.engine.tick; });
    EXPECT_EQ(times, (std::vector<std::uint64_t>{30, 60, 90}));
}

TEST(FeedLoop, SleepOfManyIntervals_OneTickAndTheNextAfterAFullInterval) {
    LoopFeed loop({.interval_ms = 100});
    loop.pass_at(100);
    EXPECT_EQ(loop.feed.engine.tick, 1u);
    loop.pass_at(3150);  // thirty ticks late
    EXPECT_EQ(loop.feed.engine.tick, 2u);
    for (std::uint64_t at = 3150; at < 3250; at += 5) {
        loop.pass_at(at);
        EXPECT_EQ(loop.feed.engine.tick, 2u) << at;
    }
    loop.pass_at(3250);
    EXPECT_EQ(loop.feed.engine.tick, 3u);
}

TEST(FeedLoop, NegativeInterval_NoTick) {
    LoopFeed loop({.interval_ms = -1});
    loop.pass_at(100);
    loop.pass_at(100'000'000);
    EXPECT_EQ(loop.feed.engine.tick, 0u);
}

TEST(FeedLoop, IntervalZero_TickInEveryPass) {
    LoopFeed loop({.interval_ms = 0});
    loop.pass_at(0);
    loop.pass_at(0);
    loop.pass_at(1);
    EXPECT_EQ(loop.feed.engine.tick, 3u);
}

TEST(FeedLoop, NoPackets_HeartbeatAfterExactlyASecond) {
    LoopFeed loop({.interval_ms = -1});
    const std::vector<std::uint64_t> times = loop.changes_until(
        2500, [&loop] { return loop.packets.size(); }, 50);
    EXPECT_EQ(times, (std::vector<std::uint64_t>{1000, 2000}));
}

TEST(FeedLoop, TickThatFlushes_PutsTheHeartbeatOff) {
    LoopFeed loop({.interval_ms = 400});
    for (std::uint64_t at = 0; at <= 4000; at += 50) {
        loop.pass_at(at);
    }
    EXPECT_FALSE(loop.packets.empty());
    for (const Bytes& packet : loop.packets) {
        EXPECT_FALSE(packet_messages(packet).empty());
    }
}

// Both bounds: nothing before its time, and no later than the first pass after it.
TEST(FeedLoop, SteeredRun_StatsLineEvery2000MsAndSummaryEvery10000) {
    LoopFeed loop({.interval_ms = -1, .with_control = true});
    std::vector<std::uint64_t> stats;
    std::vector<std::uint64_t> summaries;
    for (std::uint64_t at = 0; at <= 20'000; at += 100) {
        loop.pass_at(at);
        const std::string text = loop.log.take();
        if (text.find("bench: stats ") != std::string::npos) {
            stats.push_back(at);
        }
        if (text.find("[tessel] msgs ") != std::string::npos) {
            summaries.push_back(at);
        }
    }
    EXPECT_EQ(stats, (std::vector<std::uint64_t>{2000, 4000, 6000, 8000, 10'000, 12'000, 14'000, 16'000,
                                                 18'000, 20'000}));
    EXPECT_EQ(summaries, (std::vector<std::uint64_t>{10'000, 20'000}));
}

TEST(FeedLoop, AtTheBoundary_1999And9999MsAreTooEarly) {
    LoopFeed loop({.interval_ms = -1, .with_control = true});
    loop.pass_at(1999);
    EXPECT_EQ(loop.log.take(), "");
    loop.pass_at(2000);
    EXPECT_EQ(count_of(loop.log.take(), "bench: stats "), 1u);
    loop.pass_at(9999);
    EXPECT_EQ(count_of(loop.log.take(), "[tessel] msgs "), 0u);
    loop.pass_at(10'000);
    EXPECT_EQ(count_of(loop.log.take(), "[tessel] msgs "), 1u);
}

TEST(FeedLoop, NeitherSteeredNorScripted_SummaryButNoStatsLine) {
    LoopFeed loop({.scenario = "odd_lot_every=0", .interval_ms = -1});
    loop.pass_at(2000);
    loop.pass_at(10'000);
    const std::string text = loop.log.take();
    EXPECT_EQ(count_of(text, "bench: stats "), 0u);
    EXPECT_EQ(count_of(text, "[tessel] msgs "), 1u);
}

// ------------------------------------------------------------------------------------------- the files

std::uint64_t inode_of(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 ? found.st_ino : 0;
}

TEST(FeedLoop, BookFile_FirstPassThenEvery250Ms) {
    const TempFolder folder;
    LoopFeed loop({.interval_ms = -1, .book_out = folder.path("book.json")});
    // Each writing makes a new file, and the wall clock makes its text a new one.
    const std::vector<std::uint64_t> times = loop.changes_until(
        1000,
        [&] {
            loop.feed.clock.simulated_wall_ns += 1'000'000;
            return std::hash<std::string>{}(read_file(folder.path("book.json")));
        },
        10);
    EXPECT_EQ(times, (std::vector<std::uint64_t>{0, 250, 500, 750, 1000}));
}

TEST(FeedLoop, BookFile_249MsAreTooEarly) {
    const TempFolder folder;
    LoopFeed loop({.interval_ms = -1, .book_out = folder.path("book.json")});
    loop.pass_at(0);
    const std::string first = read_file(folder.path("book.json"));
    loop.feed.clock.simulated_wall_ns += 1'000'000;
    loop.pass_at(249);
    EXPECT_EQ(read_file(folder.path("book.json")), first);
    loop.pass_at(250);
    EXPECT_NE(read_file(folder.path("book.json")), first);
}

TEST(FeedLoop, BboFileAlone_IsWrittenAndNoBook) {
    const TempFolder folder;
    LoopFeed loop({.interval_ms = -1, .bbo_out = folder.path("bbo.txt")});
    loop.pass_at(0);
    EXPECT_EQ(read_file(folder.path("bbo.txt")), "AAPL 0 0\nMSFT 0 0\nTSLA 0 0\n");
    const std::uint64_t first = inode_of(folder.path("bbo.txt"));
    std::filesystem::create_hard_link(folder.path("bbo.txt"),
                                      folder.path("kept"));  // its inode is not reused
    loop.pass_at(249);
    EXPECT_EQ(inode_of(folder.path("bbo.txt")), first);
    loop.pass_at(250);
    EXPECT_NE(inode_of(folder.path("bbo.txt")), first);
    EXPECT_FALSE(std::filesystem::exists(folder.path("book.json")));
}

TEST(FeedLoop, BookFileAlone_IsWrittenAndNoBbo) {
    const TempFolder folder;
    LoopFeed loop({.interval_ms = -1, .book_out = folder.path("book.json")});
    loop.pass_at(0);
    EXPECT_NE(read_file(folder.path("book.json")), "");
    EXPECT_FALSE(std::filesystem::exists(folder.path("bbo.txt")));
}

// In a separate process: a start with sockets also changes what signals do. The result is its exit status.
int reserve_after_start(const std::string& book_out, const std::string& bbo_out) {
    const pid_t child = fork();
    if (child == 0) {
        const auto feed = std::make_unique<Feed>();
        feed->config.mcast = "127.0.0.1";
        feed->config.retrans_port = 0;
        feed->config.snapshot_port = 0;
        feed->config.book_out = book_out;
        feed->config.bbo_out = bbo_out;
        ExitStatus status = ExitStatus::stopped;
        std::string error;
        _exit(!start_feed(*feed, status, error) ? 10 : feed->reserve.fd >= 0 ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The first pass accepts connections before it writes the files: they must not find the last descriptor free.
TEST(FeedStart, BookOrBboFileAskedFor_ReserveIsOpenBeforeTheFirstPass) {
    const TempFolder folder;
    StderrCapture log;
    EXPECT_EQ(reserve_after_start(folder.path("book.json"), ""), 1);
    EXPECT_EQ(reserve_after_start("", folder.path("bbo.txt")), 1);
    EXPECT_EQ(reserve_after_start("", ""), 0);
}

// ------------------------------------------------------------------------------------- order in a pass

TEST(FeedLoop, ScenarioHaltAndTickDueInOnePass_TheHaltComesFirst) {
    const TempFolder folder;
    LoopFeed loop({.scenario = "halt_after=1,halt_secs=0",
                   .interval_ms = 1000,
                   .truth_out = folder.path("truth.jsonl")});
    loop.pass_at(1000);
    // The halt's line is the first of all, and the tick's quotes of the other instruments follow it.
    const std::string truth = read_file(folder.path("truth.jsonl"));
    const std::string first = truth.substr(0, truth.find('\n'));
    EXPECT_NE(first.find("\"symbol\":\"AAPL\""), std::string::npos) << first;
    EXPECT_NE(truth.find("\"reason\":\"T1\""), std::string::npos) << truth;
    EXPECT_EQ(count_of(truth, "\"symbol\":\"AAPL\""), count_of(truth, "\"status\":\"H\"")) << truth;
    EXPECT_NE(truth.find("\"symbol\":\"MSFT\""), std::string::npos) << truth;
}

TEST(FeedLoop, BandDueInTheSamePass_IsPublishedByThatTicksSuccessor) {
    LoopFeed loop({.scenario = "band_every=1", .interval_ms = 100});
    loop.pass_at(0);  // sets the first band's time: one second from now
    loop.pass_at(999);
    EXPECT_EQ(loop.feed.scenario.stats.bands, 0u);
    loop.pass_at(1100);
    EXPECT_EQ(loop.feed.scenario.stats.bands, 3u);
}

TEST(FeedLoop, CommandAndTickDueInOnePass_TheCommandComesFirst) {
    LoopFeed loop({.interval_ms = 100, .with_control = true});
    sockaddr_in address{};
    socklen_t bytes = sizeof address;
    ASSERT_EQ(getsockname(loop.feed.control_socket, reinterpret_cast<sockaddr*>(&address), &bytes), 0);
    const int client = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(sendto(client, "pause", 5, 0, reinterpret_cast<const sockaddr*>(&address), bytes), 5);
    loop.pass_at(100);
    EXPECT_EQ(loop.feed.engine.tick, 1u);
    EXPECT_EQ(loop.feed.publisher.next_sequence, 1u);  // a paused market's tick makes nothing
    close(client);
}

// ----------------------------------------------------------------------------- what the loop waits for

TEST(FeedLoop, Wait_ListenerControlAndEveryConnectionArePolled) {
    LoopFeed loop({.interval_ms = -1, .with_control = true});
    const int first = loop.connect_client();
    const int second = loop.connect_client();
    loop.pass_at(1);
    ASSERT_EQ(loop.feed.snapshot.connections.size(), 2u);
    EXPECT_TRUE(loop.waits_for(loop.feed.snapshot.listener));
    EXPECT_TRUE(loop.waits_for(loop.feed.control_socket));
    EXPECT_TRUE(loop.waits_for(loop.feed.snapshot.connections[0].fd));
    EXPECT_TRUE(loop.waits_for(loop.feed.snapshot.connections[1].fd));
    EXPECT_EQ(loop.feed.poll_set.size(), 4u);
    close(first);
    close(second);
}

TEST(FeedLoop, Wait_WithoutControlChannel_ListenerAlone) {
    LoopFeed loop({.interval_ms = -1});
    loop.pass_at(1);
    EXPECT_EQ(loop.feed.poll_set.size(), 1u);
    EXPECT_TRUE(loop.waits_for(loop.feed.snapshot.listener));
}

TEST(FeedLoop, ListenerWithoutDescriptorsForClients_IsNotWaitedFor) {
    LoopFeed loop;
    list_inputs(loop.feed);
    EXPECT_TRUE(loop.waits_for(loop.feed.snapshot.listener));
    loop.feed.snapshot.accept_failing = true;
    list_inputs(loop.feed);
    EXPECT_FALSE(loop.waits_for(loop.feed.snapshot.listener));
}

TEST(FeedLoop, LoginInThePassOfATick_IsServedTheStateBeforeTheTick) {
    LoopFeed loop;
    PeerInMemory client;
    connect_in_memory(loop.feed.snapshot, client.peer, static_cast<std::int64_t>(start_ms));
    run_one_pass(loop.feed, start_ms + 100);
    const std::uint64_t before = last_sequence(loop.feed.publisher);
    client.log_in();
    run_one_pass(loop.feed, start_ms + 200);
    EXPECT_GT(last_sequence(loop.feed.publisher), before);
    ASSERT_GE(client.sent.size(), 8u);
    EXPECT_EQ(get_u64(client.sent, client.sent.size() - 8), before);
}

}  // namespace
}  // namespace tessel
