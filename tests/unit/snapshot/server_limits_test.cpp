#include "snapshot/server.h"
#include "support/test_market.h"
#include "unit/snapshot/loopback_service.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>

namespace tessel {
namespace {

using namespace testing;

TEST(SnapshotServer, SecondOfSilence_EveryOpenConnectionGetsAHeartbeat) {
    Service service;
    Client stranger(service.port);
    Client member(service.port);
    ASSERT_TRUE(service.logs_in(member));
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 2; }));
    member.received.clear();
    service.pass(999);
    service.pass();
    service.pass(1);
    service.pass(999);
    service.pass(1);
    ASSERT_TRUE(service.pass_until([&] {
        stranger.read_on();
        member.read_on();
        return stranger.received.size() >= 6 && member.received.size() >= 6;
    }));
    EXPECT_EQ(stranger.received, std::string("\0\1H\0\1H", 6)) << "logged in or not";
    EXPECT_EQ(member.received, std::string("\0\1H\0\1H", 6));
}

TEST(SnapshotServer, SpinJustSent_PutsTheHeartbeatOff) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
    service.now_ms += 900;
    ASSERT_TRUE(service.logs_in(client));
    service.pass(999);
    service.pass();
    EXPECT_FALSE(client.read_on());
    EXPECT_EQ(client.types(), "AS");
}

TEST(SnapshotServer, SilentConnection_IsTimedOutAfterFifteenSecondsLoggedInOrNot) {
    for (const bool logs_in : {false, true}) {
        Service service({.symbols = "A:1", .participants = "Q", .quiet = true});
        Client client(service.port);
        if (logs_in) {
            ASSERT_TRUE(service.logs_in(client));
        } else {
            ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
        }
        service.log.take();
        service.pass(14'999);
        ASSERT_EQ(service.server.connections.size(), 1u);
        EXPECT_EQ(service.log.take(), "");
        service.pass(1);
        EXPECT_TRUE(service.server.connections.empty());
        EXPECT_EQ(service.log.take(), "[tessel] Snap-Shot client timed out\n") << "also when quiet";
        EXPECT_TRUE(service.closes(client));
    }
}

TEST(SnapshotServer, AnyByteFromTheClient_PutsTheTimeoutOff) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
    for (int round = 0; round < 3; ++round) {
        service.now_ms += 14'000;
        const std::int64_t now = service.now_ms;
        client.say(packet('R'));
        // The heartbeat's pass at this time would come first if the packet had not arrived yet.
        pollfd readable{service.server.connections.at(0).fd, POLLIN, 0};
        ASSERT_EQ(poll(&readable, 1, 30'000), 1);
        service.pass();
        ASSERT_EQ(service.server.connections.size(), 1u);
        EXPECT_EQ(service.server.connections[0].last_receive_ms, now);
    }
    service.pass(15'000);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, Quiet_SuppressesTheConnectionAndLogoutLinesOnly) {
    Service service({.symbols = "A:1", .participants = "Q", .quiet = true});
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.say(packet('O'));
    ASSERT_TRUE(service.closes(client));
    const std::string text = service.log.take();
    EXPECT_EQ(text.substr(0, 32), "bench: Snap-Shot spin to 'LATE':") << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(SnapshotServer, SomeConnectionsClosed_TheOthersKeepTheirOrder) {
    Service service;
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 1; count <= 5; ++count) {
        clients.push_back(std::make_unique<Client>(service.port));
        ASSERT_TRUE(service.pass_until(
            [&] { return service.server.connections.size() == static_cast<std::size_t>(count); }));
    }
    std::vector<int> before;
    for (const SnapshotConnection& connection : service.server.connections) {
        before.push_back(connection.fd);
    }
    clients[1]->end();
    clients[3]->say(packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 3; }));
    std::vector<int> after;
    for (const SnapshotConnection& connection : service.server.connections) {
        after.push_back(connection.fd);
    }
    EXPECT_EQ(after, (std::vector<int>{before[0], before[2], before[4]}));
}

TEST(SnapshotServer, Connection999_IsTheLastThatMayLogIn) {
    Service service({.symbols = "", .participants = "", .quiet = true});
    service.server.connections_accepted = 998;
    Client last(service.port);
    ASSERT_TRUE(service.logs_in(last));
    EXPECT_EQ(service.server.connections_accepted, 999u);
    last.say(packet('O'));
    ASSERT_TRUE(service.closes(last));
    for (int more = 0; more < 2; ++more) {
        Client late(service.port);
        late.say(login("LATE"));
        ASSERT_TRUE(service.closes(late));
        EXPECT_EQ(late.received, std::string("\0\2JA", 4));
    }
    EXPECT_EQ(service.stats().snapshot_rejects, 2u);
}

// Over the limit whoever logs in is rejected, also one who connected before.
TEST(SnapshotServer, LimitPassed_OlderConnectionsAreRejectedToo) {
    Service service({.symbols = "", .participants = "", .quiet = true});
    service.server.connections_accepted = 998;
    Client old(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections_accepted == 999; }));
    Client young(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections_accepted == 1000; }));
    old.say(login("OLD"));
    ASSERT_TRUE(service.closes(old));
    EXPECT_EQ(old.received, std::string("\0\2JA", 4));
}

// Reads until the end of snapshot, as a separate client would; the server waits for its reader meanwhile.
void read_spin(Client& client) {
    const timeval patience{60, 0};
    setsockopt(client.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::vector<char> chunk(32'768);
    const std::string& so_far = client.received;
    while (so_far.size() < 40 || so_far.compare(so_far.size() - 37, 5, "1ASE ") != 0) {
        const ssize_t count = recv(client.fd, chunk.data(), chunk.size(), 0);
        if (count <= 0) {
            return;
        }
        client.received.append(chunk.data(), static_cast<std::size_t>(count));
    }
}

TEST(SnapshotServer, SlowReader_GetsAWholeSpinLargerThanTheWindow) {
    Service service(
        {.symbols = std::string(6000, ',') + "IBM", .participants = "QN", .quiet = true, .truth = false});
    Client client(service.port, 4096);
    client.say(login("SLOW"));
    std::thread reader([&] { read_spin(client); });
    const bool served = service.pass_until([&] { return service.stats().snapshots == 1; });
    reader.join();
    ASSERT_TRUE(served);
    EXPECT_EQ(client.types(), "AS");
    EXPECT_EQ(client.received.size(), 33 + service.server.spin.bytes_flushed);
    EXPECT_GT(service.server.spin.bytes_flushed, 2'000'000u);
}

// One that vanishes while the spin goes out: the send fails, the pass ends, the record goes with the next
// one.
// Counts the waits instead of waiting: twenty seconds pass in no time.
struct CountedWaits {
    static inline int waits = 0;
    static inline std::int64_t ms = 0;
    static void count(int /*fd*/, int at_most_ms) {
        ++waits;
        ms += at_most_ms;
    }
};

TEST(SnapshotServer, ClientThatNeverReads_SpinIsGivenUpAfter2000WaitsOf10Ms) {
    std::string symbols;
    for (int number = 0; number < 4000; ++number) {
        symbols += (number == 0 ? "S" : ",S") + std::to_string(number) + ":100";
    }
    Service service({.symbols = symbols, .participants = "QN", .quiet = true});
    service.server.wait_for_reader = CountedWaits::count;
    const int small = 4096;
    setsockopt(service.server.listener, SOL_SOCKET, SO_SNDBUF, &small,
               sizeof small);  // accepted ones have it too
    CountedWaits::waits = 0;
    CountedWaits::ms = 0;
    Client client(service.port, small);
    client.say(login("NEVER"));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    EXPECT_EQ(CountedWaits::waits, 2000);
    EXPECT_EQ(CountedWaits::ms, 20'000);
    // Its next heartbeats and everything else go on without it.
    service.pass(1000);
    EXPECT_EQ(CountedWaits::waits, 2000);
}

TEST(SnapshotServer, ClientThatVanishesDuringTheSpin_DoesNotHoldTheServer) {
    Service service(
        {.symbols = std::string(20'000, ',') + "IBM", .participants = "QN", .quiet = true, .truth = false});
    Client client(service.port, 4096);
    client.say(login("GONE"));
    std::thread vanisher([&] {
        char chunk[4096];
        static_cast<void>(recv(client.fd, chunk, sizeof chunk, 0));  // the spin has begun
        client.reset();
    });
    const bool served = service.pass_until([&] { return service.stats().snapshots == 1; });
    vanisher.join();
    ASSERT_TRUE(served);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.empty(); }));
    Client next(service.port);
    next.say(login("NEXT"));
    std::thread reader([&] { read_spin(next); });
    const bool served_again = service.pass_until([&] { return service.stats().snapshots == 2; });
    reader.join();
    ASSERT_TRUE(served_again);
    EXPECT_EQ(next.types(), "AS");
}

TEST(SnapshotServer, OutOfDescriptors_IsReportedToTheLoop) {
    Service service({.symbols = "", .participants = "", .quiet = true});
    Client client(service.port);
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const rlimit none{0, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    service.pass();
    const bool failing = service.server.accept_failing;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_TRUE(failing);
    EXPECT_TRUE(service.server.connections.empty());
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }))
        << "once there are some again";
    EXPECT_FALSE(service.server.accept_failing);
}

TEST(SnapshotServer, ListenerPortInUse_IsReportedInOneLine) {
    const Service service;
    SnapshotServer second;
    std::string error;
    EXPECT_FALSE(open_listener(second, service.port, error));
    EXPECT_EQ(error, "tessel: cannot listen on Snap-Shot port " + std::to_string(service.port) +
                         ": Address already in use\n");
    close(second.listener);
}

TEST(SnapshotServer, AcceptedSockets_AreNonBlockingAndUndelayed) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
    const int fd = service.server.connections[0].fd;
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    int undelayed = 0;
    socklen_t length = sizeof undelayed;
    getsockopt(fd, IPPROTO_TCP, 1 /* TCP_NODELAY */, &undelayed, &length);
    EXPECT_NE(undelayed, 0);
}

// --- connections in memory

struct MemoryClient {
    MemoryClient() {
        peer.sink = {keep, this};
    }
    static void keep(void* context, const unsigned char* bytes, std::size_t size) {
        static_cast<MemoryClient*>(context)->received.append(reinterpret_cast<const char*>(bytes), size);
    }
    void send(const std::string& bytes) {
        peer.input.insert(peer.input.end(), bytes.begin(), bytes.end());
    }
    SnapshotPeer peer;
    std::string received;
};

TEST(SnapshotPeerInMemory, SameRequests_SameBytesAsAClientWithASocket) {
    TestMarket market({.symbols = "AAPL:190", .participants = "QN", .wall_step_ns = 0});
    market.start_of_day();
    SnapshotServer server;
    MemoryClient client;
    connect_in_memory(server, client.peer, 5000);
    client.send(login("LATE"));
    service_snapshots(server, market.engine, 5000);
    SpinBuffer spin;
    build_spin(spin, market.engine, wall_ns(market.clock));
    append_end_of_snapshot(spin, wall_ns(market.clock), market.last());
    ASSERT_EQ(client.received.size(), 33 + spin.size);
    EXPECT_EQ(client.received.substr(0, 13), std::string("\0\x1F", 2) + "AUTPBENCH01");
    EXPECT_EQ(std::memcmp(client.received.data() + 33, spin.bytes.data(), spin.size), 0);
    EXPECT_TRUE(server.connections.at(0).logged_in);
    client.send(packet('O'));
    EXPECT_EQ(next_snapshot_due_ms(server), 0u) << "what the client sent waits";
    service_snapshots(server, market.engine, 5000);
    EXPECT_TRUE(client.peer.closed);
    EXPECT_TRUE(server.connections.empty());
    EXPECT_EQ(next_snapshot_due_ms(server), UINT64_MAX);
}

TEST(SnapshotPeerInMemory, SecondClient_IsRejectedAndSilenceEndsTheFirst) {
    TestMarket market({.symbols = "AAPL:190", .participants = "QN"});
    SnapshotServer server;
    MemoryClient first;
    MemoryClient second;
    connect_in_memory(server, first.peer, 0);
    connect_in_memory(server, second.peer, 0);
    first.send(login("ONE"));
    second.send(login("TWO"));
    service_snapshots(server, market.engine, 0);
    EXPECT_EQ(second.received, std::string("\0\x02JA", 4));
    EXPECT_TRUE(second.peer.closed);
    EXPECT_EQ(next_snapshot_due_ms(server), 1000u);
    first.received.clear();
    service_snapshots(server, market.engine, 1000);
    EXPECT_EQ(first.received, std::string("\0\x01H", 3));
    service_snapshots(server, market.engine, 14'999);
    EXPECT_FALSE(first.peer.closed);
    service_snapshots(server, market.engine, 15'000);
    EXPECT_TRUE(first.peer.closed);
}

}  // namespace
}  // namespace tessel
