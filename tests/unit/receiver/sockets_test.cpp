#include "receiver/sockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <string>
#include <vector>

namespace tessel::receiver {
namespace {

constexpr int patience_ms = 60'000;

// A socket that is closed at the end of the test.
struct Owned {
    int fd = -1;

    explicit Owned(int descriptor) : fd(descriptor) {}
    ~Owned() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

sockaddr_in bound_address(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
}

int bound_socket(int type) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in any = loopback(0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    return fd;
}

bool wait_for(int fd, short events) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, patience_ms) == 1;
}

TEST(ReceiverSockets, Endpoint_IsReadAsHostAndPort) {
    sockaddr_in address{};
    std::string error;
    ASSERT_TRUE(parse_endpoint(address, "127.0.0.1:25178", error)) << error;
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(address.sin_port, htons(25178));
    ASSERT_TRUE(parse_endpoint(address, "localhost:1", error)) << error;
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST(ReceiverSockets, BadEndpoints_AreRefusedWithTheValue) {
    for (const std::string text : {"", ":", ":1", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
                                   "127.0.0.1:1x", "127.0.0.1: 1", "127.0.0.1:-1", "0.0.0.0:1"}) {
        sockaddr_in address{};
        std::string error;
        EXPECT_FALSE(parse_endpoint(address, text, error)) << text;
        EXPECT_NE(error.find("'" + text + "'"), std::string::npos) << error;
    }
}

TEST(ReceiverSockets, Multicast_ReceivesWhatIsSentToItsGroupInOrder) {
    MulticastSocket feed;
    std::string error;
    // The port that a socket just had is free, but for other programs' bad luck: then another is tried.
    std::uint16_t port = 0;
    for (int attempt = 0; attempt < 20 && feed.fd < 0; ++attempt) {
        const Owned scout(bound_socket(SOCK_DGRAM));
        port = ntohs(bound_address(scout.fd).sin_port);
        open_multicast(feed, "239.255.77.1", port, "127.0.0.1", 65'536, error);
    }
    ASSERT_GE(feed.fd, 0) << error;
    const Owned owner(feed.fd);
    EXPECT_GE(feed.buffer_bytes, 65'536);
    const Owned sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const in_addr iface{htonl(INADDR_LOOPBACK)};
    ASSERT_EQ(setsockopt(sender.fd, IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface), 0);
    sockaddr_in group = loopback(port);
    inet_pton(AF_INET, "239.255.77.1", &group.sin_addr);
    const auto send_text = [&](const std::string& text) {
        ASSERT_EQ(sendto(sender.fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                         sizeof group),
                  static_cast<ssize_t>(text.size()));
    };
    for (int i = 0; i < 5; ++i) {
        send_text("packet " + std::to_string(i));
    }
    send_text(std::string(3000, 'x'));  // longer than any packet of the feed
    send_text("last");
    std::vector<std::string> received;
    while (received.size() < 6) {
        ASSERT_TRUE(wait_for(feed.fd, POLLIN));
        // Two at a time: what is left waits for the next call.
        EXPECT_LE(receive_multicast(feed, 2,
                                    [&](const unsigned char* bytes, std::size_t length) {
                                        received.emplace_back(reinterpret_cast<const char*>(bytes), length);
                                    }),
                  2u);
    }
    EXPECT_EQ(received,
              (std::vector<std::string>{"packet 0", "packet 1", "packet 2", "packet 3", "packet 4", "last"}));
    EXPECT_EQ(feed.truncated, 1u);
    EXPECT_EQ(feed.kernel_drops, 0u);
    EXPECT_EQ(receive_multicast(feed, 2, [](const unsigned char*, std::size_t) { FAIL(); }), 0u);
}

TEST(ReceiverSockets, MulticastThatCannotBeJoined_IsRefusedWithTheReason) {
    MulticastSocket feed;
    std::string error;
    EXPECT_FALSE(open_multicast(feed, "nonsense", 25177, "127.0.0.1", 65'536, error));
    EXPECT_NE(error.find("'nonsense'"), std::string::npos);
    EXPECT_FALSE(open_multicast(feed, "239.255.77.1", 25177, "nonsense", 65'536, error));
    EXPECT_NE(error.find("'nonsense'"), std::string::npos);
    // 192.0.2.0/24 is kept for documentation: no interface has such an address.
    EXPECT_FALSE(open_multicast(feed, "239.255.77.1", 25177, "192.0.2.1", 65'536, error));
    EXPECT_NE(error.find("join 239.255.77.1 on 192.0.2.1"), std::string::npos) << error;
    EXPECT_EQ(feed.fd, -1);
}

TEST(ReceiverSockets, Retransmission_HearsItsServiceAlone) {
    const Owned service(bound_socket(SOCK_DGRAM));
    const Owned stranger(bound_socket(SOCK_DGRAM));
    std::string error;
    const Owned client(open_retransmission(bound_address(service.fd), 65'536, error));
    ASSERT_GE(client.fd, 0) << error;
    const sockaddr_in address = bound_address(client.fd);
    for (const int from : {stranger.fd, service.fd}) {
        const std::string text = from == service.fd ? "service" : "stranger";
        ASSERT_EQ(sendto(from, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                         sizeof address),
                  static_cast<ssize_t>(text.size()));
    }
    ASSERT_TRUE(wait_for(client.fd, POLLIN));
    char bytes[64];
    EXPECT_EQ(recv(client.fd, bytes, sizeof bytes, 0), 7);
    EXPECT_EQ(recv(client.fd, bytes, sizeof bytes, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(ReceiverSockets, Connection_IsThereWhenWritableWithoutAnError) {
    const Owned listening(bound_socket(SOCK_STREAM));
    ASSERT_EQ(listen(listening.fd, 1), 0);
    std::string error;
    const Owned client(begin_connection(bound_address(listening.fd), error));
    ASSERT_GE(client.fd, 0) << error;
    ASSERT_TRUE(wait_for(client.fd, POLLOUT));
    EXPECT_EQ(connection_error(client.fd), 0);
}

TEST(ReceiverSockets, ConnectionToNobody_IsRefused) {
    sockaddr_in address{};
    {
        const Owned closed(bound_socket(SOCK_STREAM));
        address = bound_address(closed.fd);
    }
    std::string error;
    const Owned client(begin_connection(address, error));
    if (client.fd >= 0) {
        ASSERT_TRUE(wait_for(client.fd, POLLOUT));
        EXPECT_EQ(connection_error(client.fd), ECONNREFUSED);
    } else {
        EXPECT_NE(error.find("connect"), std::string::npos);
    }
}

}  // namespace
}  // namespace tessel::receiver
