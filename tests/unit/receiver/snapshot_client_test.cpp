#include "receiver/snapshot_client.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <vector>

// Method: a service on a loopback socket that the test plays itself, and a client whose time is a number.
namespace tessel::receiver {
namespace {

constexpr int patience_ms = 60'000;

struct Service {
    int listening = -1;
    int connection = -1;
    std::string received;
    SnapshotClient client;
    std::vector<std::string> messages;
    std::int64_t now_ms = 1000;

    Service() {
        listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in& address = client.settings.server;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listening, 4), 0);
        EXPECT_EQ(getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length), 0);
        client.settings.user = "LATE";
        client.settings.password = "PW";
        client.settings.session = "UTPBENCH01";
        client.message = [this](const unsigned char* bytes, std::size_t size) {
            messages.emplace_back(reinterpret_cast<const char*>(bytes), size);
        };
    }
    ~Service() {
        close_snapshot(client);
        hang_up();
        close(listening);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    void hang_up() {
        if (connection >= 0) {
            close(connection);
            connection = -1;
        }
    }

    void step(std::int64_t ms = 0) {
        now_ms += ms;
        step_snapshot(client, now_ms);
    }

    // Waits until the client's socket has what it looks for, then lets it go on.
    void step_ready() {
        pollfd entry{client.fd, snapshot_events(client), 0};
        ASSERT_EQ(poll(&entry, 1, patience_ms), 1);
        step();
    }

    // Accepts the connection and reads the login.
    void accept_login() {
        step();
        while (client.state == SnapshotState::connecting) {
            step_ready();
        }
        connection = accept(listening, nullptr, nullptr);
        ASSERT_GE(connection, 0);
        read_until(49);
    }

    void read_until(std::size_t size) {
        char bytes[256];
        while (received.size() < size) {
            const ssize_t count = recv(connection, bytes, sizeof bytes, 0);
            ASSERT_GT(count, 0);
            received.append(bytes, static_cast<std::size_t>(count));
        }
    }

    void send_packet(char type, const std::string& payload) {
        std::string packet;
        packet += static_cast<char>((payload.size() + 1) >> 8);
        packet += static_cast<char>((payload.size() + 1) & 0xff);
        packet += type;
        packet += payload;
        ASSERT_EQ(send(connection, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
        step_ready();
    }

    void log_in() {
        accept_login();
        send_packet('A', "UTPBENCH01" + std::string(19, ' ') + "1");
    }
};

std::string end_of_snapshot(std::uint64_t sequence) {
    return hand_made::header('A', 'S', ' ').number(sequence, 8).data;
}

TEST(SnapshotClient, Login_IsWrittenWithItsFieldsPadded) {
    Service service;
    service.accept_login();
    EXPECT_EQ(service.client.state, SnapshotState::logged_out);
    EXPECT_STREQ(snapshot_awaited(service.client), "the reply to the login");
    EXPECT_EQ(service.received,
              std::string("\0\x2f", 2) + "LLATE  PW        UTPBENCH011" + std::string(19, ' '));
}

TEST(SnapshotClient, Spin_IsPassedOnMessageByMessage_AndEndsInALogout) {
    Service service;
    service.log_in();
    EXPECT_EQ(service.client.state, SnapshotState::waiting);
    service.send_packet('S', "first");
    service.send_packet('H', "");
    service.send_packet('S', end_of_snapshot(812));
    EXPECT_EQ(service.messages, (std::vector<std::string>{"first", end_of_snapshot(812)}));
    EXPECT_EQ(service.client.snapshot_sequence, 812u);
    EXPECT_EQ(service.client.state, SnapshotState::done);
    EXPECT_FALSE(snapshot_pending(service.client));
    service.read_until(52);
    EXPECT_EQ(service.received.substr(49), std::string("\0\1O", 3));
}

TEST(SnapshotClient, BusyService_IsTriedAgainUpToTheLimit) {
    Service service;
    service.client.settings.retries = 1;
    service.accept_login();
    service.send_packet('J', "A");
    EXPECT_EQ(service.client.state, SnapshotState::idle);
    service.hang_up();
    service.received.clear();
    service.step(service.client.settings.retry_ms - 1);
    EXPECT_EQ(service.client.attempts, 1u);
    service.now_ms += 1;
    service.accept_login();
    service.send_packet('J', "A");
    EXPECT_EQ(service.client.state, SnapshotState::failed);
    EXPECT_NE(service.client.error.find("login rejected (A"), std::string::npos);
}

TEST(SnapshotClient, OtherRejections_AreFinal) {
    Service service;
    service.accept_login();
    service.send_packet('J', "S");
    EXPECT_EQ(service.client.state, SnapshotState::failed);
    EXPECT_EQ(service.client.attempts, 1u);
}

TEST(SnapshotClient, HeartbeatsWithoutASpin_EndAtTheTimeLimit) {
    Service service;
    service.log_in();
    for (int i = 0; i < 29; ++i) {
        service.now_ms += 1000;
        service.send_packet('H', "");
    }
    EXPECT_EQ(snapshot_stall_ms(service.client, service.now_ms), 29'000);
    EXPECT_EQ(service.client.state, SnapshotState::waiting);
    service.step(999);
    EXPECT_EQ(service.client.state, SnapshotState::waiting);
    service.step(1);
    EXPECT_EQ(service.client.state, SnapshotState::failed);
    EXPECT_EQ(service.client.error, "waited 30 s for the spin");
}

TEST(SnapshotClient, MessagesOfTheSpin_ExtendTheTimeLimit) {
    Service service;
    service.log_in();
    for (int i = 0; i < 5; ++i) {
        service.now_ms += 20'000;
        service.send_packet('S', "message");
    }
    EXPECT_EQ(service.client.state, SnapshotState::waiting);
    EXPECT_STREQ(snapshot_awaited(service.client), "the rest of the spin");
}

TEST(SnapshotClient, SilentService_EndsAtTheTimeLimitWithoutAnotherAttempt) {
    Service service;
    service.accept_login();
    service.step(30'000);
    EXPECT_EQ(service.client.state, SnapshotState::failed);
    EXPECT_EQ(service.client.error, "waited 30 s for the reply to the login");
    EXPECT_EQ(service.client.attempts, 1u);
}

TEST(SnapshotClient, ConnectionLostInTheSpin_IsFinal) {
    Service service;
    service.log_in();
    service.send_packet('S', "half");
    service.hang_up();
    service.step_ready();
    EXPECT_EQ(service.client.state, SnapshotState::failed);
    EXPECT_NE(service.client.error.find("closed the connection"), std::string::npos);
}

TEST(SnapshotClient, ConnectionLostInTheSpin_IsMadeAgainByWhoCanForget) {
    Service service;
    service.client.restarted = [&] { service.messages.clear(); };
    service.log_in();
    service.send_packet('S', "half");
    service.hang_up();
    service.step_ready();
    EXPECT_EQ(service.client.state, SnapshotState::idle);
    EXPECT_TRUE(service.messages.empty());
    service.received.clear();
    service.now_ms += service.client.settings.retry_ms;
    service.log_in();
    service.send_packet('S', "whole");
    service.send_packet('S', end_of_snapshot(7));
    EXPECT_EQ(service.client.state, SnapshotState::done);
    EXPECT_EQ(service.messages.at(0), "whole");
    EXPECT_EQ(service.client.messages, 2u);
}

TEST(SnapshotClient, PacketOfLengthZero_IsFinal) {
    Service service;
    service.accept_login();
    ASSERT_EQ(send(service.connection, "\0\0", 2, MSG_NOSIGNAL), 2);
    service.step_ready();
    EXPECT_EQ(service.client.state, SnapshotState::failed);
}

TEST(SnapshotClient, IdleClient_SendsHeartbeats) {
    Service service;
    service.log_in();
    service.step(1000);
    service.read_until(52);
    EXPECT_EQ(service.received.substr(49), std::string("\0\1R", 3));
}

}  // namespace
}  // namespace tessel::receiver
