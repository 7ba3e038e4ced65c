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

TEST(SnapshotServer, Login_AnsweredByAcceptedSpinAndEndOfSnapshot) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    const auto packets = client.packets();
    EXPECT_EQ(client.types(), "AS");
    EXPECT_EQ(packets.at(0).second, "UTPBENCH01" + field("1", 20));
    const std::string& end = packets.back().second;
    const Bytes message(end.begin(), end.end());
    ASSERT_EQ(message.size(), 37u);
    EXPECT_EQ(get_u64(message, 29), service.market.last());
    EXPECT_EQ(service.stats().snapshots, 1u);
    EXPECT_EQ(service.stats().snapshot_rejects, 0u);
    const std::size_t spin_bytes = client.received.size() - 33;
    EXPECT_EQ(service.log.take(),
              "[tessel] Snap-Shot connection 1 (fd " + std::to_string(service.server.connections.at(0).fd) +
                  ")\nbench: Snap-Shot spin to 'LATE': " + std::to_string(spin_bytes) +
                  " bytes, snapshot sequence " + std::to_string(service.market.last()) + "\n");
    EXPECT_TRUE(service.server.connections.at(0).logged_in);
}

TEST(SnapshotServer, OpenPacket_IsFlushedBeforeTheSpin) {
    Service service;
    Client client(service.port);
    const unsigned char message[4] = {1, 2, 3, 4};
    const std::uint64_t sequence = append_message(service.market.publisher, message, sizeof message);
    const std::size_t sent = service.market.packets.size();
    ASSERT_TRUE(service.logs_in(client));
    EXPECT_EQ(service.market.packets.size(), sent + 1);
    const std::string end = client.packets().back().second;
    EXPECT_EQ(get_u64(Bytes(end.begin(), end.end()), 29), sequence);
}

TEST(SnapshotServer, ShortSession_IsPaddedInLoginAcceptedAndMatchedAsItIs) {
    Service service({.symbols = "A:1", .participants = "Q", .session = "AB"});
    Client client(service.port);
    client.say(login("LATE", "AB", "1"));
    ASSERT_TRUE(service.pass_until([&] {
        client.read_on();
        return !client.packets().empty();
    }));
    EXPECT_EQ(client.packets().at(0), (std::pair<char, std::string>{'A', "AB        " + field("1", 20)}));
}

TEST(SnapshotServer, LoginThatAsksForTooMuch_IsRejectedWithS) {
    const struct {
        const char* session;
        const char* sequence;
        const char* reason;
    } rows[] = {{"", "2", "session '' seq 2"},
                {"UTPBENCH01", "2", "session 'UTPBENCH01' seq 2"},
                {"OTHER", "1", "session 'OTHER' seq 1"},
                {"UTPBENCH0", "1", "session 'UTPBENCH0' seq 1"},
                {"utpbench01", "0", "session 'utpbench01' seq 0"},
                {"", "-1", "session '' seq 18446744073709551615"}};
    for (const auto& row : rows) {
        Service service;
        Client client(service.port);
        client.say(login("LATE", row.session, row.sequence));
        ASSERT_TRUE(service.closes(client)) << row.reason;
        EXPECT_EQ(client.received, std::string("\0\2JS", 4)) << row.reason;
        EXPECT_NE(service.log.take().find(std::string("bench: Snap-Shot login 'LATE' ") + row.reason +
                                          " rejected (" + reason_s + ")\n"),
                  std::string::npos)
            << row.reason;
        EXPECT_EQ(service.stats().snapshot_rejects, 1u);
        EXPECT_EQ(service.stats().snapshots, 0u);
        EXPECT_TRUE(service.server.connections.empty());
    }
}

TEST(SnapshotServer, EmptySessionWithSequence0OrOursWithSequence1_IsAccepted) {
    const std::pair<const char*, const char*> rows[] = {
        {"", ""}, {"", "0"}, {"", "1"}, {"UTPBENCH01", "1"}, {"", "x"}};
    for (const auto& [session, sequence] : rows) {
        Service service;
        Client client(service.port);
        client.say(login("LATE", session, sequence));
        ASSERT_TRUE(service.pass_until([&] {
            client.read_on();
            return !client.packets().empty();
        }));
        EXPECT_EQ(client.packets().at(0).first, 'A') << session << sequence;
    }
}

TEST(SnapshotServer, LoginWithoutAUsername_IsRejectedWithA) {
    Service service;
    for (const std::string& request : {login(""), packet('L'), packet('L', std::string(45, 'A'))}) {
        Client client(service.port);
        client.say(request);
        ASSERT_TRUE(service.closes(client));
        EXPECT_EQ(client.received, std::string("\0\2JA", 4));
        EXPECT_NE(
            service.log.take().find(std::string("login '' session '' seq 0 rejected (") + reason_a + ")\n"),
            std::string::npos);
    }
    EXPECT_EQ(service.stats().snapshot_rejects, 3u);
    EXPECT_EQ(service.server.connections_accepted, 3u) << "rejected logins count as connections";
}

TEST(SnapshotServer, LongerLoginPayload_IsReadFromItsStart) {
    Service service;
    Client client(service.port);
    client.say(packet('L', field("LATE", 6) + field("", 40) + "more"));
    ASSERT_TRUE(service.pass_until([&] {
        client.read_on();
        return !client.packets().empty();
    }));
    EXPECT_EQ(client.packets().at(0).first, 'A');
}

TEST(SnapshotServer, SecondClient_IsRejectedUntilTheFirstLogsOut) {
    Service service;
    Client first(service.port);
    ASSERT_TRUE(service.logs_in(first, "FIRST"));
    Client second(service.port);
    second.say(login("SECOND"));
    ASSERT_TRUE(service.closes(second));
    EXPECT_EQ(second.received, std::string("\0\2JA", 4));
    EXPECT_NE(service.log.take().find(std::string("rejected (") + reason_a), std::string::npos);
    first.say(packet('O'));
    ASSERT_TRUE(service.closes(first));
    EXPECT_EQ(service.log.take(), "[tessel] Snap-Shot client logged out\n");
    Client third(service.port);
    EXPECT_TRUE(service.logs_in(third, "THIRD"));
}

// Bytes that were sent are there before the next pass: the descriptors of the server's side show it.
bool have_input(const Service& service, std::size_t connections) {
    std::size_t ready = 0;
    for (const SnapshotConnection& connection : service.server.connections) {
        pollfd readable{connection.fd, POLLIN, 0};
        ready += poll(&readable, 1, 10'000) == 1 ? 1 : 0;
    }
    return ready == connections;
}

TEST(SnapshotServer, LogoutAndALaterConnectionsLoginInOnePass_TheLoginIsServed) {
    Service service;
    Client first(service.port);
    ASSERT_TRUE(service.logs_in(first, "ONE"));
    Client second(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 2; }));
    first.say(packet('O'));
    second.say(login("TWO"));
    ASSERT_TRUE(have_input(service, 2));
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 2u);
    EXPECT_EQ(service.stats().snapshot_rejects, 0u);
    EXPECT_EQ(service.server.connections.size(), 1u);
}

TEST(SnapshotServer, LoginAndALaterConnectionsLogoutInOnePass_TheLoginIsRejected) {
    Service service;
    Client waiting(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
    Client holder(service.port);
    ASSERT_TRUE(service.logs_in(holder, "ONE"));
    waiting.say(login("TWO"));
    holder.say(packet('O'));
    ASSERT_TRUE(have_input(service, 2));
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 1u);
    EXPECT_EQ(service.stats().snapshot_rejects, 1u);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, LoggedInClientLogsInAgain_GetsAnotherSpin) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.received.clear();
    ASSERT_TRUE(service.logs_in(client));
    EXPECT_EQ(client.types(), "AS");
    EXPECT_EQ(service.stats().snapshots, 2u);
}

TEST(SnapshotServer, LoginsInOneBurst_AreServedOneAPass) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + packet('R') + login("LATE") + login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots > 0; }));
    EXPECT_EQ(service.stats().snapshots, 1u);
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 2u);
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 3u);
    EXPECT_TRUE(service.server.connections.empty()) << "the logout after the last of them";
}

TEST(SnapshotServer, LogoutSentWithTheLogin_IsReceivedInTheSamePass) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    EXPECT_NE(service.log.take().find("[tessel] Snap-Shot client logged out\n"), std::string::npos);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, LoginThatWaited_IsServedThoughTheClientIsGoneByThen) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    // The descriptor of the server's side reports when the end of the stream is there.
    client.end();
    pollfd peer{service.server.connections.at(0).fd, POLLRDHUP, 0};
    ASSERT_EQ(poll(&peer, 1, 60'000), 1);
    service.log.take();
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 2u);
    EXPECT_NE(service.log.take().find("[tessel] Snap-Shot client logged out\n"), std::string::npos);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, LoginSplitAtEveryByte_IsServedOnceComplete) {
    const std::string request = login("LATE", "UTPBENCH01", "1");
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
        Service service;
        Client client(service.port);
        client.say(request.substr(0, cut));
        ASSERT_TRUE(service.pass_until([&] {
            return !service.server.connections.empty() && service.server.connections[0].input.size() == cut;
        }));
        EXPECT_EQ(service.stats().snapshots, 0u);
        client.say(request.substr(cut));
        ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; })) << cut;
    }
}

TEST(SnapshotServer, OtherPackets_AreConsumedAndIgnored) {
    Service service;
    Client client(service.port);
    client.say(packet('R') + packet('U', "data") + packet('+', "debug") + packet('\0') + packet('A', "x") +
               login("LATE"));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    EXPECT_EQ(service.stats().snapshot_rejects, 0u);
}

TEST(SnapshotServer, BytesAfterALengthOfZero_AreNeitherParsedNorKept) {
    Service service;
    Client client(service.port);
    client.say(packet('R') + std::string("\0\0", 2) + login("LATE"));
    ASSERT_TRUE(service.pass_until(
        [&] { return !service.server.connections.empty() && service.server.connections[0].blocked; }));
    for (int round = 0; round < 100; ++round) {
        const std::string junk(60'000, '\1');
        send(client.fd, junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        service.pass();
        EXPECT_EQ(service.server.connections.at(0).input.capacity(), 0u);
    }
    EXPECT_EQ(service.stats().snapshots, 0u);
    EXPECT_LE(service.server.gathered.capacity(), 2 * soup_input_bytes_max);
    service.pass(14'999);
    EXPECT_EQ(service.server.connections.size(), 1u) << "its bytes still show that it lives";
}

TEST(SnapshotServer, LargestPacket_IsBufferedAndNoMore) {
    Service service;
    Client client(service.port);
    const std::string big = packet('U', std::string(65534, 'x'));
    client.say(big.substr(0, big.size() - 1));
    ASSERT_TRUE(service.pass_until([&] {
        return !service.server.connections.empty() &&
               service.server.connections[0].input.size() == big.size() - 1;
    }));
    client.say(big.substr(big.size() - 1) + login("LATE"));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
}

TEST(SnapshotServer, FastSender_IsReadAtMostItsShareAPass) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.size() == 1; }));
    std::atomic<bool> done{false};
    std::thread sender([&] {
        const std::string junk(1 << 20, '\1');
        while (!done.load()) {
            if (send(client.fd, junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
                pollfd writable{client.fd, POLLOUT, 0};
                poll(&writable, 1, 1);
            }
        }
    });
    for (int round = 0; round < 200; ++round) {
        service.pass();
        ASSERT_LE(service.server.gathered.size(), soup_input_bytes_max);
        ASSERT_LE(service.server.connections.at(0).input.size(), soup_packet_bytes_max);
    }
    done = true;
    sender.join();
}

TEST(SnapshotServer, EndOfStreamInTheSamePassAsALogin_ClosesBeforeItIsParsed) {
    Service service;
    Client client(service.port);
    client.say(login("LATE"));
    shutdown(client.fd, SHUT_WR);
    // Both must have arrived before the pass: the descriptor reports the end of the stream.
    pollfd peer{-1, 0, 0};
    poll(&peer, 1, 50);
    ASSERT_TRUE(service.closes(client));
    EXPECT_EQ(client.received, "");
    EXPECT_EQ(service.stats().snapshots, 0u);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, Reset_IsAnEndLikeAnyOther) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.reset();
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.empty(); }));
    Client next(service.port);
    EXPECT_TRUE(service.logs_in(next));
}

}  // namespace
}  // namespace tessel
