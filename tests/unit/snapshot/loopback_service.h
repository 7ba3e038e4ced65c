#pragma once

#include "snapshot/server.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The Snap-Shot service of a market in memory, over loopback sockets, with the time in the test's hand.
namespace tessel::testing {

inline std::string field(std::string_view text, std::size_t width) {
    std::string result(text.substr(0, width));
    result.resize(width, ' ');
    return result;
}

inline std::string packet(char type, std::string_view payload = {}) {
    const std::size_t length = 1 + payload.size();
    std::string bytes{static_cast<char>(length >> 8), static_cast<char>(length & 0xFF), type};
    bytes += payload;
    return bytes;
}

inline std::string login(std::string_view user, std::string_view session = "",
                         std::string_view sequence = "") {
    return packet('L', field(user, 6) + field("secret", 10) + field(session, 10) + field(sequence, 20));
}

inline std::span<const unsigned char> as_bytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

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

// A server with its market. pass() waits until loopback has carried what clients did.
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

inline constexpr const char* reason_a = "A: not authorized / another connection open / attempts exhausted";
inline constexpr const char* reason_s =
    "S: session unavailable: not today's session or a sequence other than 1";

}  // namespace tessel::testing
