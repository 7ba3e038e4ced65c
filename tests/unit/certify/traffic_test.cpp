#include "certify/traffic.h"

#include "certify/traffic_packets.h"
#include "mold/packet.h"
#include "receiver/sockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

// The whole traffic process, over sockets of the loopback interface.
namespace tessel::certify {
namespace {

constexpr int patience_ms = 20'000;

std::uint16_t port_of(int fd) {
    sockaddr_in address{};
    socklen_t bytes = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &bytes);
    return ntohs(address.sin_port);
}

// A socket on a port that the system chooses.
int udp_socket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// A port that nobody has at the moment.
std::uint16_t free_port() {
    const int fd = udp_socket();
    const std::uint16_t port = port_of(fd);
    close(fd);
    return port;
}

Packet packet(std::uint64_t first, unsigned count) {
    Packet bytes(mold_header_bytes);
    put_mold_header(bytes.data(), "FEEDNUMBER", first, count);
    for (unsigned message = 0; message < count; ++message) {
        const Packet block = {0, 8, '1', 'Q', 'C', 'P', 1, 2, 3, static_cast<unsigned char>(message)};
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    return bytes;
}

struct TrafficProcess : testing::Test {
    Endpoints feed;
    Endpoints handler;
    int service = -1;  // the retransmission service
    int to_feed = -1;  // the feed's socket
    receiver::MulticastSocket group;
    pid_t child = -1;

    void start(const std::vector<Traffic>& traffic) {
        const std::string last = std::to_string(getpid() % 250 + 1);
        service = udp_socket();
        feed = {"239.255.77." + last,
                free_port(),
                "127.0.0.1",
                "FEEDNUMBER",
                "127.0.0.1:" + std::to_string(port_of(service)),
                "127.0.0.1:1"};
        handler = feed;
        if (is_between(traffic)) {
            handler.group = "239.255.78." + last;
            handler.port = free_port();
            handler.retrans = "127.0.0.1:" + std::to_string(free_port());
            handler.snapshot = "127.0.0.1:" + std::to_string(free_port());
        }
        std::string error;
        ASSERT_TRUE(
            receiver::open_multicast(group, handler.group, handler.port, handler.iface, 1 << 20, error))
            << error;
        to_feed = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const in_addr loopback{htonl(INADDR_LOOPBACK)};
        setsockopt(to_feed, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        child = fork();
        if (child == 0) {
            close(ready[0]);
            _exit(run_traffic(traffic, feed, handler, ready[1]));
        }
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the traffic did not start";
        close(ready[0]);
    }

    void TearDown() override {
        if (child > 0) {
            kill(child, SIGTERM);
            int status = 0;
            waitpid(child, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        close(service);
        close(to_feed);
        close(group.fd);
    }

    void send_from_feed(const Packet& bytes) const {
        sockaddr_in address{};
        std::string error;
        receiver::parse_endpoint(address, feed.group + ":" + std::to_string(feed.port), error);
        sendto(to_feed, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }

    static Packet receive(int fd, int wait_ms = patience_ms) {
        pollfd entry{fd, POLLIN, 0};
        Packet bytes(70'000);
        const ssize_t length = poll(&entry, 1, wait_ms) > 0 ? recv(fd, bytes.data(), bytes.size(), 0) : -1;
        bytes.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return bytes;
    }
};

TEST_F(TrafficProcess, BesideTheFeed_AddsToItsGroupAndIgnoresItsOwn) {
    start({{"foreign_session", {}}, {"replay", {{"every", "2"}, {"back", "1"}}}});
    std::vector<Packet> received;
    for (std::uint64_t number = 1; number <= 4; ++number) {
        send_from_feed(packet(number, 1));
        const std::size_t more = number % 2 == 0 ? 3 : 2;
        for (std::size_t each = 0; each < more; ++each) {
            received.push_back(receive(group.fd));
        }
    }
    EXPECT_EQ(received[0], packet(1, 1));
    EXPECT_EQ(received[1], foreign_copy(packet(1, 1), false));
    EXPECT_EQ(received[4], packet(1, 1));
    EXPECT_TRUE(receive(group.fd, 100).empty());
}

TEST_F(TrafficProcess, Between_PassesChangedPacketsToTheHandlersGroup) {
    start({{"split", {}}});
    send_from_feed(packet(10, 2));
    EXPECT_EQ(receive(group.fd), packet(10, 1));
    EXPECT_EQ(mold_sequence(receive(group.fd).data()), 11U);
    send_from_feed(packet(12, 0));
    EXPECT_EQ(receive(group.fd), packet(12, 0));
}

TEST_F(TrafficProcess, Between_HandsRequestsAndRepliesOn) {
    start({{"retrans_partial", {{"messages", "5"}}}, {"retrans_twice", {}}});
    sockaddr_in proxy{};
    std::string error;
    ASSERT_TRUE(receiver::parse_endpoint(proxy, handler.retrans, error));
    const int client = udp_socket();
    const Packet request = packet(7, 0);
    Packet wanted = request;
    wanted[mold_count_at + 1] = 9;
    sendto(client, wanted.data(), wanted.size(), 0, reinterpret_cast<sockaddr*>(&proxy), sizeof proxy);
    Packet passed(100);
    sockaddr_in from{};
    socklen_t from_bytes = sizeof from;
    pollfd entry{service, POLLIN, 0};
    ASSERT_GT(poll(&entry, 1, patience_ms), 0);
    ASSERT_EQ(
        recvfrom(service, passed.data(), passed.size(), 0, reinterpret_cast<sockaddr*>(&from), &from_bytes),
        static_cast<ssize_t>(mold_header_bytes));
    EXPECT_EQ(mold_count(passed.data()), 5U);
    const Packet reply = packet(7, 5);
    sendto(service, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
    EXPECT_EQ(receive(client), reply);
    EXPECT_EQ(receive(client), reply);
    close(client);
}

TEST(Traffic, UnknownKinds_AreRefused) {
    std::string error;
    EXPECT_TRUE(check_traffic({{"empty", {}}, {"split", {}}}, error)) << error;
    EXPECT_FALSE(check_traffic({{"empty", {}}, {"spilt", {}}}, error));
    EXPECT_EQ(error, "traffic: unknown kind 'spilt'; did you mean 'split'?");
    EXPECT_TRUE(is_between({{"empty", {}}, {"split", {}}}));
    EXPECT_FALSE(is_between({{"empty", {}}, {"noise", {}}}));
}

}  // namespace
}  // namespace tessel::certify
