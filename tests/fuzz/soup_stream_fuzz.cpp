// Any bytes on a Snap-Shot connection: cutting them anywhere makes no difference, to what is answered nor to
// what becomes of the connection; the listener's reader sees the same packets.

#include "fuzz_check.h"
#include "snapshot/server.h"
#include "soup/soup_packet.h"
#include "support/test_market.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace tessel;
using fuzz::check;

constexpr std::size_t cuts_max = 160;  // of one input at the server: beyond, every n-th position
constexpr std::size_t stream_bytes_max = 4096;

using Packets = std::vector<std::pair<char, std::string>>;

// What the server did with a stream.
struct Outcome {
    std::string answer;
    bool closed = false;
    bool blocked = false;
    std::size_t left = 0;  // bytes of an incomplete packet
    std::uint64_t snapshots = 0;
    std::uint64_t rejects = 0;

    bool operator==(const Outcome&) const = default;
};

testing::TestMarket& market() {
    static testing::TestMarket one(
        {.symbols = "IBM:100", .participants = "QD", .quiet = true, .truth = false, .wall_step_ns = 0});
    return one;
}

void read_answer(int fd, std::string& answer) {
    char part[8192];
    for (;;) {
        const ssize_t count = recv(fd, part, sizeof part, MSG_DONTWAIT);
        if (count <= 0) {
            return;
        }
        answer.append(part, static_cast<std::size_t>(count));
    }
}

// Passes of the server until everything received is dealt with: each deals with one login at most.
void serve(SnapshotServer& server, int client, Outcome& outcome) {
    std::size_t passes = 0;
    do {
        service_snapshots(server, market().engine, 1'000'000);
        read_answer(client, outcome.answer);
        check(++passes <= stream_bytes_max, "the server comes to an end");
    } while (!server.connections.empty() && server.connections[0].deferred &&
             !server.connections[0].input.empty());
}

// Sends the stream in pieces that end at each of the cuts.
Outcome serve_stream(std::span<const unsigned char> stream, const std::vector<std::size_t>& cuts) {
    int pair[2] = {-1, -1};
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
    SnapshotServer server;
    server.connections_accepted = 1;
    SnapshotConnection connection;
    connection.fd = pair[0];
    connection.connected_ms = connection.last_receive_ms = connection.last_send_ms = 1'000'000;
    server.connections.push_back(connection);
    FeedStats& stats = market().scenario.stats;
    stats = {};
    Outcome outcome;
    std::size_t at = 0;
    for (const std::size_t cut : cuts) {
        // A server that has closed takes no more: what the rest says is then nobody's business.
        (void)send(pair[1], stream.data() + at, cut - at, MSG_NOSIGNAL);
        at = cut;
        serve(server, pair[1], outcome);
    }
    outcome.closed = server.connections.empty();
    outcome.snapshots = stats.snapshots;
    outcome.rejects = stats.snapshot_rejects;
    if (!outcome.closed) {
        outcome.blocked = server.connections[0].blocked;
        outcome.left = server.connections[0].input.size();
        close(server.connections[0].fd);
    }
    close(pair[1]);
    return outcome;
}

// The packets by the server's reader, given all of them in one piece.
Packets read_whole(std::span<const unsigned char> stream, std::size_t& used) {
    Packets packets;
    SoupPacket packet;
    std::size_t consumed = 0;
    used = 0;
    while (next_soup_packet(stream.subspan(used), packet, consumed)) {
        check(consumed == 3 + packet.payload.size(), "a packet takes its length");
        used += consumed;
        packets.emplace_back(packet.type, std::string(packet.payload.begin(), packet.payload.end()));
        if (packet.type == soup_login_request) {
            const LoginRequest login = read_login(packet.payload);
            check(login.username.size() <= 6 && login.session.size() <= 10, "a login's fields");
        }
    }
    return packets;
}

// The packets by the listener's reader, in two pieces.
Packets read_cut(std::span<const unsigned char> stream, std::size_t cut, bool& broken) {
    Packets packets;
    receiver::SoupReader reader;
    receiver::SoupPacket packet;
    broken = false;
    for (const std::span<const unsigned char> piece : {stream.first(cut), stream.subspan(cut)}) {
        receiver::soup_append(reader, piece.data(), piece.size());
        while (receiver::soup_next(reader, packet, &broken)) {
            packets.emplace_back(packet.type,
                                 std::string(reinterpret_cast<const char*>(packet.payload), packet.length));
        }
    }
    return packets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::span<const unsigned char> stream(data, std::min(size, stream_bytes_max));
    std::size_t used = 0;
    const Packets expected = read_whole(stream, used);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        bool broken = false;
        check(read_cut(stream, cut, broken) == expected, "the listener's reader sees other packets");
        check(broken == is_blocked(stream.subspan(used)), "a length of 0");
    }
    const Outcome whole = serve_stream(stream, {stream.size()});
    const std::size_t step = stream.size() / cuts_max + 1;
    std::vector<std::size_t> every;
    for (std::size_t cut = step; cut < stream.size(); cut += step) {
        check(serve_stream(stream, {cut, stream.size()}) == whole, "a cut makes a difference");
        every.push_back(cut);
    }
    every.push_back(stream.size());
    check(serve_stream(stream, every) == whole, "many cuts make a difference");
    return 0;
}
