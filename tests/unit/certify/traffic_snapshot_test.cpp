#include "certify/traffic_snapshot.h"

#include "soup/soup_packet.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace tessel::certify {
namespace {

constexpr std::int64_t ms = 1'000'000;

int listener(std::string& at) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t bytes = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), bytes), 0);
    EXPECT_EQ(listen(fd, 8), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &bytes);
    at = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    return fd;
}

// A service that sends a text to whoever logs in, the passage in front of it, and a simulated time.
struct Passage : testing::Test {
    SnapshotTraffic traffic;
    std::string service_at;
    int service = -1;
    std::vector<int> served;
    std::string spin = std::string(1000, 'a') + "the end";
    std::int64_t now_ns = 0;

    void open(const std::vector<Traffic>& tables) {
        for (const Traffic& each : tables) {
            std::string error;
            ASSERT_TRUE(read_traffic_settings(each, traffic.settings.emplace_back(), error)) << error;
        }
        service = listener(service_at);
        std::string free_at;
        close(listener(free_at));
        std::string error;
        ASSERT_TRUE(open_snapshot(traffic, free_at, service_at, error)) << error;
    }

    void TearDown() override {
        close_snapshot(traffic);
        close(service);
        for (const int fd : served) {
            close(fd);
        }
    }

    int connect_client() {
        sockaddr_in address{};
        socklen_t bytes = sizeof address;
        getsockname(traffic.fd, reinterpret_cast<sockaddr*>(&address), &bytes);
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string login = receiver::soup_login("LATE", "", "FEEDNUMBER");
        send(client, login.data(), login.size(), MSG_NOSIGNAL);
        return client;
    }

    // The service's turn: it accepts, and answers a login with the spin.
    void serve_service() {
        const int fd = accept4(service, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            served.push_back(fd);
        }
        for (const int each : served) {
            char login[100];
            if (recv(each, login, sizeof login, MSG_DONTWAIT) > 0) {
                send(each, spin.data(), spin.size(), MSG_NOSIGNAL);
            }
        }
    }

    // What the client gets until the connection ends or it has `most` bytes, in the pieces in which it comes.
    std::vector<std::string> receive(int client, std::size_t most) {
        std::vector<std::string> pieces;
        std::size_t received = 0;
        for (int turn = 0; turn < 200'000 && received < most; ++turn) {
            now_ns += ms;
            serve(traffic, now_ns);
            serve_service();
            char bytes[4096];
            const ssize_t length = recv(client, bytes, sizeof bytes, MSG_DONTWAIT);
            if (length > 0) {
                pieces.emplace_back(bytes, static_cast<std::size_t>(length));
                received += static_cast<std::size_t>(length);
            } else if (length == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                break;
            }
        }
        close(client);
        return pieces;
    }

    std::string text(int client, std::size_t most) {
        std::string whole;
        for (const std::string& piece : receive(client, most)) {
            whole += piece;
        }
        return whole;
    }
};

TEST_F(Passage, WithoutAnythingToDo_PassesTheSpinOn) {
    open({{"retrans_twice", {}}});
    EXPECT_EQ(text(connect_client(), spin.size()), spin);
    EXPECT_EQ(traffic.connections, 1U);
}

TEST_F(Passage, Half_EndsTheFirstConnectionAfterSoManyBytes) {
    open({{"snapshot_half", {{"bytes", "600"}, {"times", "1"}}}});
    EXPECT_EQ(text(connect_client(), 5000), spin.substr(0, 600));
    EXPECT_EQ(text(connect_client(), spin.size()), spin);
    EXPECT_EQ(traffic.cut, 1U);
}

TEST_F(Passage, Busy_RejectsTheFirstLogins) {
    open({{"snapshot_busy", {{"times", "2"}}}});
    const std::string rejected("\0\2JA", 4);
    EXPECT_EQ(text(connect_client(), 5000), rejected);
    EXPECT_EQ(text(connect_client(), 5000), rejected);
    EXPECT_EQ(text(connect_client(), spin.size()), spin);
    EXPECT_EQ(traffic.rejected, 2U);
}

TEST_F(Passage, Closed_ClosesTheFirstConnectionsWithoutAWord) {
    open({{"snapshot_closed", {{"times", "1"}}}});
    EXPECT_EQ(text(connect_client(), 5000), "");
    EXPECT_EQ(text(connect_client(), spin.size()), spin);
    EXPECT_EQ(traffic.closed, 1U);
}

TEST_F(Passage, Pieces_AreAsSmallAsWanted) {
    open({{"snapshot_pieces", {{"bytes", "7"}}}});
    std::string whole;
    for (const std::string& piece : receive(connect_client(), spin.size())) {
        EXPECT_LE(piece.size(), 7U);
        whole += piece;
    }
    EXPECT_EQ(whole, spin);
}

TEST_F(Passage, Slow_TakesTheTimeOfItsRate) {
    open({{"snapshot_slow", {{"bytes_a_second", "500"}}}});
    EXPECT_EQ(text(connect_client(), spin.size()), spin);
    EXPECT_GE(now_ns, 1900 * ms);  // 1,007 bytes at 500 a second
    EXPECT_LE(now_ns, 20'000 * ms);
}

}  // namespace
}  // namespace tessel::certify
