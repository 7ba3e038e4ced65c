#include "snapshot/server.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_u64;
using testing::MarketOptions;
using testing::TestMarket;

std::string field(std::string_view text, std::size_t width) {
    std::string result(text.substr(0, width));
    result.resize(width, ' ');
    return result;
}

std::string packet(char type, std::string_view payload = {}) {
    const std::size_t length = 1 + payload.size();
    std::string bytes{static_cast<char>(length >> 8), static_cast<char>(length & 0xFF), type};
    bytes += payload;
    return bytes;
}

std::string login(std::string_view user, std::string_view session = "", std::string_view sequence = "") {
    return packet('L', field(user, 6) + field("secret", 10) + field(session, 10) + field(sequence, 20));
}

std::span<const unsigned char> as_bytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// --- the parser, in memory

TEST(SoupParser, PacketIsWholeAtItsLastByteAndNotBefore) {
    const std::string input = login("LATE", "UTPBENCH01", "1");
    ASSERT_EQ(input.size(), 49u);
    SoupPacket parsed;
    std::size_t consumed = 0;
    for (std::size_t cut = 0; cut < input.size(); ++cut) {
        EXPECT_FALSE(next_soup_packet(as_bytes(input).first(cut), parsed, consumed)) << cut;
    }
    ASSERT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(parsed.type, 'L');
    EXPECT_EQ(parsed.payload.size(), login_request_bytes);
    EXPECT_EQ(consumed, input.size());
}

TEST(SoupParser, BytesBehindAPacketStayForTheNext) {
    const std::string input = packet('R') + packet('O') + std::string("\0", 1);
    SoupPacket parsed;
    std::size_t consumed = 0;
    ASSERT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(parsed.type, 'R');
    EXPECT_EQ(consumed, 3u);
    ASSERT_TRUE(next_soup_packet(as_bytes(input).subspan(3), parsed, consumed));
    EXPECT_EQ(parsed.type, 'O');
    EXPECT_FALSE(next_soup_packet(as_bytes(input).subspan(6), parsed, consumed));
}

TEST(SoupParser, LengthZeroNeverCompletes) {
    const std::string input(1000, '\0');
    SoupPacket parsed;
    std::size_t consumed = 0;
    EXPECT_FALSE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_TRUE(is_blocked(as_bytes(input)));
    EXPECT_FALSE(is_blocked(as_bytes(input).first(1)));
    EXPECT_FALSE(is_blocked({}));
    EXPECT_FALSE(is_blocked(as_bytes(packet('R'))));
}

TEST(SoupParser, LongestPacketIsTaken) {
    const std::string input = packet('U', std::string(65534, 'x'));
    ASSERT_EQ(input.size(), soup_packet_bytes_max);
    SoupPacket parsed;
    std::size_t consumed = 0;
    EXPECT_FALSE(next_soup_packet(as_bytes(input).first(input.size() - 1), parsed, consumed));
    EXPECT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(consumed, input.size());
}

TEST(LoginFields, AreCutAndStripped) {
    const std::string payload =
        field("AB", 6) + field("pass", 10) + std::string("SESS\0\0 \0  ", 10) + field("1", 20);
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "AB");
    EXPECT_EQ(request.session, "SESS");
    EXPECT_EQ(request.sequence, 1u);
}

TEST(LoginFields, FullWidthsAreKept) {
    const std::string payload = "ABCDEF" + field("", 10) + "UTPBENCH01" + "18446744073709551615";
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "ABCDEF");
    EXPECT_EQ(request.session, "UTPBENCH01");
    EXPECT_EQ(request.sequence, 18446744073709551615u);
}

TEST(LoginFields, ShortPayloadGivesEmptyFields) {
    const std::string payload(45, 'A');
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "");
    EXPECT_EQ(request.session, "");
    EXPECT_EQ(request.sequence, 0u);
}

TEST(LoginFields, SequenceIsReadAsStrtoullReadsIt) {
    const auto sequence_of = [](const std::string& text) {
        return read_login(as_bytes(field("U", 6) + field("", 20) + field(text, 20))).sequence;
    };
    EXPECT_EQ(sequence_of(""), 0u);
    EXPECT_EQ(sequence_of("                   1"), 1u);
    EXPECT_EQ(sequence_of("abc"), 0u);
    EXPECT_EQ(sequence_of("2x"), 2u);
    EXPECT_EQ(sequence_of("-1"), 18446744073709551615u);
    EXPECT_EQ(sequence_of("99999999999999999999"), 18446744073709551615u);
    EXPECT_EQ(sequence_of(std::string("\0"
                                      "5",
                                      2)),
              0u);
}

// --- the server, over loopback sockets, with the time in the test's hand

struct Client {
    explicit Client(std::uint16_t port, int receive_buffer = 0)
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receive_buffer > 0) {
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() {
        end();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    void end() {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }
    void reset() {
        const linger now{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        end();
    }
    void say(std::string_view bytes) const {
        ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // Adds what is there to received; true once the server has closed the connection.
    bool read_on() {
        char chunk[65536];
        while (true) {
            const ssize_t count = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
            if (count > 0) {
                received.append(chunk, static_cast<std::size_t>(count));
                continue;
            }
            return count == 0 || errno != EAGAIN;
        }
    }
    // Whole packets received so far, as type and payload.
    std::vector<std::pair<char, std::string>> packets() const {
        std::vector<std::pair<char, std::string>> result;
        SoupPacket parsed;
        std::size_t consumed = 0;
        std::span<const unsigned char> rest = as_bytes(received);
        while (next_soup_packet(rest, parsed, consumed)) {
            result.emplace_back(parsed.type, std::string(parsed.payload.begin(), parsed.payload.end()));
            rest = rest.subspan(consumed);
        }
        return result;
    }
    // Their types in order, runs of Sequenced Data as one 'S'.
    std::string types() const {
        std::string result;
        for (const auto& [type, payload] : packets()) {
            if (type != 'S' || result.empty() || result.back() != 'S') {
                result += type;
            }
        }
        return result;
    }
    int fd;
    bool connected = false;
    std::string received;
};

// A server with a market behind it. pass() waits until loopback has carried what clients did.
struct Service {
    explicit Service(const MarketOptions& options = {.symbols = "AAPL:190", .participants = "QN"})
        : market(options) {
        market.start_of_day();
        std::string error;
        EXPECT_TRUE(open_listener(server, 0, error)) << error;
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(server.listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        log.take();
    }
    ~Service() {
        for (SnapshotConnection& connection : server.connections) {
            close(connection.fd);
        }
        close(server.listener);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    void pass(std::int64_t ms = 0) {
        now_ms += ms;
        service_snapshots(server, market.engine, now_ms);
    }
    // Passes without any time going by until the condition holds; loopback needs a moment now and then.
    template <typename Condition>
    [[nodiscard]] bool pass_until(Condition condition) {
        for (int tries = 0; tries < 20'000; ++tries) {
            pass();
            if (condition()) {
                return true;
            }
            pollfd nothing{-1, 0, 0};
            poll(&nothing, 1, tries < 50 ? 0 : 1);
        }
        return false;
    }
    [[nodiscard]] bool closes(Client& client) {
        return pass_until([&] { return client.read_on(); });
    }
    // Logs a client in and waits for the whole spin.
    [[nodiscard]] bool logs_in(Client& client, std::string_view user = "LATE") {
        client.say(login(user));
        return pass_until([&] {
            client.read_on();
            const auto packets = client.packets();
            return !packets.empty() && packets.back().first == 'S' &&
                   packets.back().second.substr(0, 5) == "1ASE ";
        });
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    testing::StderrCapture log;
    TestMarket market;
    SnapshotServer server;
    std::uint16_t port = 0;
    std::int64_t now_ms = 5'000'000;
};

constexpr const char* reason_a = "A: not authorized / another connection open / attempts exhausted";
constexpr const char* reason_s = "S: session unavailable: not today's session or a sequence other than 1";

TEST(SnapshotServer, LoginIsAnsweredByAcceptedSpinAndEndOfSnapshot) {
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

TEST(SnapshotServer, OpenPacketIsFlushedBeforeTheSpin) {
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

TEST(SnapshotServer, ShortSessionIsPaddedInLoginAcceptedAndMatchedAsItIs) {
    Service service({.symbols = "A:1", .participants = "Q", .session = "AB"});
    Client client(service.port);
    client.say(login("LATE", "AB", "1"));
    ASSERT_TRUE(service.pass_until([&] {
        client.read_on();
        return !client.packets().empty();
    }));
    EXPECT_EQ(client.packets().at(0), (std::pair<char, std::string>{'A', "AB        " + field("1", 20)}));
}

TEST(SnapshotServer, LoginThatAsksForTooMuchIsRejectedWithS) {
    const struct {
        const char* session;
        const char* sequence;
        const char* told;
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
        ASSERT_TRUE(service.closes(client)) << row.told;
        EXPECT_EQ(client.received, std::string("\0\2JS", 4)) << row.told;
        EXPECT_NE(service.log.take().find(std::string("bench: Snap-Shot login 'LATE' ") + row.told +
                                          " rejected (" + reason_s + ")\n"),
                  std::string::npos)
            << row.told;
        EXPECT_EQ(service.stats().snapshot_rejects, 1u);
        EXPECT_EQ(service.stats().snapshots, 0u);
        EXPECT_TRUE(service.server.connections.empty());
    }
}

TEST(SnapshotServer, EmptySessionWithSequence0OrOursWithSequence1IsAccepted) {
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

TEST(SnapshotServer, LoginWithoutAUsernameIsRejectedWithA) {
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

TEST(SnapshotServer, LongerLoginPayloadIsReadFromItsStart) {
    Service service;
    Client client(service.port);
    client.say(packet('L', field("LATE", 6) + field("", 40) + "more"));
    ASSERT_TRUE(service.pass_until([&] {
        client.read_on();
        return !client.packets().empty();
    }));
    EXPECT_EQ(client.packets().at(0).first, 'A');
}

TEST(SnapshotServer, SecondClientIsRejectedUntilTheFirstLogsOut) {
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

TEST(SnapshotServer, LoggedInClientMayLogInAgainAndGetsAnotherSpin) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.received.clear();
    ASSERT_TRUE(service.logs_in(client));
    EXPECT_EQ(client.types(), "AS");
    EXPECT_EQ(service.stats().snapshots, 2u);
}

TEST(SnapshotServer, LoginsInOneBurstAreServedOneAPass) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + packet('R') + login("LATE") + login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots > 0; }));
    EXPECT_EQ(service.stats().snapshots, 1u);
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 2u);
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 3u);
    EXPECT_TRUE(service.server.connections.empty()) << "the logout behind the last of them";
}

TEST(SnapshotServer, LogoutSentWithTheLoginIsHeardInTheSamePass) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    EXPECT_NE(service.log.take().find("[tessel] Snap-Shot client logged out\n"), std::string::npos);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, LoginThatWaitedIsServedThoughTheClientIsGoneByThen) {
    Service service;
    Client client(service.port);
    client.say(login("LATE") + login("LATE") + packet('O'));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    // The descriptor of the server's side tells when the end of the stream is there.
    client.end();
    pollfd peer{service.server.connections.at(0).fd, POLLRDHUP, 0};
    ASSERT_EQ(poll(&peer, 1, 60'000), 1);
    service.log.take();
    service.pass();
    EXPECT_EQ(service.stats().snapshots, 2u);
    EXPECT_NE(service.log.take().find("[tessel] Snap-Shot client logged out\n"), std::string::npos);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, LoginSplitAtEveryByteIsServedOnceComplete) {
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

TEST(SnapshotServer, OtherPacketsAreConsumedAndIgnored) {
    Service service;
    Client client(service.port);
    client.say(packet('R') + packet('U', "data") + packet('+', "debug") + packet('\0') + packet('A', "x") +
               login("LATE"));
    ASSERT_TRUE(service.pass_until([&] { return service.stats().snapshots == 1; }));
    EXPECT_EQ(service.stats().snapshot_rejects, 0u);
}

TEST(SnapshotServer, NothingBehindALengthOfZeroIsParsedAndNoByteOfItKept) {
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

TEST(SnapshotServer, LargestPacketIsBufferedAndNoMore) {
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

TEST(SnapshotServer, FastSenderIsReadAtMostItsShareAPass) {
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

TEST(SnapshotServer, EndOfStreamInTheSamePassAsALoginClosesBeforeItIsParsed) {
    Service service;
    Client client(service.port);
    client.say(login("LATE"));
    shutdown(client.fd, SHUT_WR);
    // Both must have arrived before the pass: the descriptor tells the end of the stream.
    pollfd peer{-1, 0, 0};
    poll(&peer, 1, 50);
    ASSERT_TRUE(service.closes(client));
    EXPECT_EQ(client.received, "");
    EXPECT_EQ(service.stats().snapshots, 0u);
    EXPECT_TRUE(service.server.connections.empty());
}

TEST(SnapshotServer, ResetIsAnEndLikeAnyOther) {
    Service service;
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.reset();
    ASSERT_TRUE(service.pass_until([&] { return service.server.connections.empty(); }));
    Client next(service.port);
    EXPECT_TRUE(service.logs_in(next));
}

TEST(SnapshotServer, EveryOpenConnectionGetsAHeartbeatAfterASecondOfSilence) {
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

TEST(SnapshotServer, SpinCountsAsSentForTheHeartbeat) {
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

TEST(SnapshotServer, SilentConnectionIsTimedOutAfterFifteenSecondsALoginDoesNotProtectIt) {
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

TEST(SnapshotServer, AnyByteFromTheClientPutsTheTimeoutOff) {
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

TEST(SnapshotServer, QuietSuppressesTheConnectionAndLogoutLinesOnly) {
    Service service({.symbols = "A:1", .participants = "Q", .quiet = true});
    Client client(service.port);
    ASSERT_TRUE(service.logs_in(client));
    client.say(packet('O'));
    ASSERT_TRUE(service.closes(client));
    const std::string text = service.log.take();
    EXPECT_EQ(text.substr(0, 32), "bench: Snap-Shot spin to 'LATE':") << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(SnapshotServer, ClosedRecordsLeaveTheListAndTheOthersKeepTheirOrder) {
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

TEST(SnapshotServer, Connection999IsTheLastThatMayLogIn) {
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
TEST(SnapshotServer, OlderConnectionIsRejectedTooOnceTheLimitIsPassed) {
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

// Reads until the end of snapshot, as a client of its own would; the server waits for its reader meanwhile.
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

TEST(SnapshotServer, SpinLargerThanTheWindowGoesOutWholeToASlowReader) {
    Service service(
        {.symbols = std::string(6000, ',') + "IBM", .participants = "QN", .quiet = true, .truth = false});
    Client client(service.port, 4096);
    client.say(login("SLOW"));
    std::thread reader([&] { read_spin(client); });
    const bool served = service.pass_until([&] { return service.stats().snapshots == 1; });
    reader.join();
    ASSERT_TRUE(served);
    EXPECT_EQ(client.types(), "AS");
    EXPECT_EQ(client.received.size(), 33 + service.server.spin.handed_over);
    EXPECT_GT(service.server.spin.handed_over, 2'000'000u);
}

// One that vanishes while the spin goes out: the send fails, the pass ends, the record goes with the next
// one.
TEST(SnapshotServer, ClientThatVanishesDuringTheSpinDoesNotHoldTheServer) {
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

TEST(SnapshotServer, OutOfDescriptorsIsToldSoThatTheLoopDoesNotSpin) {
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

TEST(SnapshotServer, PortInUseIsReportedInOneLine) {
    const Service service;
    SnapshotServer second;
    std::string error;
    EXPECT_FALSE(open_listener(second, service.port, error));
    EXPECT_EQ(error, "tessel: cannot listen on Snap-Shot port " + std::to_string(service.port) +
                         ": Address already in use\n");
    close(second.listener);
}

TEST(SnapshotServer, AcceptedSocketsAreNonBlockingAndUndelayed) {
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

TEST(SnapshotPeerInMemory, GetsTheSameBytesAsAClientWithASocket) {
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

TEST(SnapshotPeerInMemory, SecondClientIsRejectedAndSilenceEndsTheFirst) {
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
