#include "mold/retransmission_server.h"

#include "unit/mold/transport_bench.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_text;
using testing::get_u64;
using testing::packet_messages;
using testing::StderrCapture;
using testing::TestPublisher;

Bytes request_for(const std::string& session, std::uint64_t sequence, std::uint16_t count) {
    Bytes request(session.begin(), session.end());
    for (int shift = 56; shift >= 0; shift -= 8) {
        request.push_back(static_cast<unsigned char>(sequence >> shift));
    }
    request.push_back(static_cast<unsigned char>(count >> 8));
    request.push_back(static_cast<unsigned char>(count));
    return request;
}

// Hands a request in and gives the reply packets back.
std::vector<Bytes> ask(MoldPublisher& publisher, const Bytes& request) {
    std::vector<Bytes> replies;
    const PacketSink sink{[](void* context, const unsigned char* packet, std::size_t length) {
                              static_cast<std::vector<Bytes>*>(context)->emplace_back(packet,
                                                                                      packet + length);
                          },
                          &replies};
    EXPECT_TRUE(answer_request(publisher, request.data(), request.size(), sink));
    return replies;
}

std::string ask_for(TestPublisher& test, std::uint64_t sequence, std::uint16_t count) {
    return TestPublisher::summary(ask(test.publisher, request_for("UTPBENCH01", sequence, count)));
}

TEST(Retransmission, MoreThanThereIs_50MessagesInOnePacket) {
    TestPublisher test;
    test.add_many(50);
    const std::vector<Bytes> replies = ask(test.publisher, request_for("UTPBENCH01", 1, 100));
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(TestPublisher::summary(replies), "1+50");
    EXPECT_EQ(get_text(replies[0], 0, 10), "UTPBENCH01");
    std::vector<Bytes> expected;
    for (std::uint64_t sequence = 1; sequence <= 50; ++sequence) {
        expected.push_back(TestPublisher::message_with(sequence, 22));
    }
    EXPECT_EQ(packet_messages(replies[0]), expected);
    EXPECT_EQ(replies[0].size(), 20u + 50u * 24u);
    EXPECT_EQ(test.publisher.retrans_served, 1u);
}

TEST(Retransmission, 200MessagesOf22Bytes_PacketsOf61_61_61And17) {
    TestPublisher test;
    test.add_many(300);
    EXPECT_EQ(ask_for(test, 11, 200), "11+61 72+61 133+61 194+17");
}

TEST(Retransmission, ShortSession_MustComePaddedWithBlanks) {
    TestPublisher test("AB");
    test.add_many(5);
    EXPECT_EQ(TestPublisher::summary(ask(test.publisher, request_for("AB        ", 1, 5))), "1+5");
    EXPECT_EQ(test.publisher.retrans_rejected, 0u);
    EXPECT_TRUE(ask(test.publisher, request_for(std::string("AB\0\0\0\0\0\0\0\0", 10), 1, 5)).empty());
    EXPECT_EQ(test.publisher.retrans_rejected, 1u);
    EXPECT_EQ(test.publisher.retrans_served, 1u);
}

TEST(Retransmission, LongSession_IsComparedByItsFirstTenLetters) {
    TestPublisher test("UTPBENCH01234");
    test.add_many(5);
    EXPECT_EQ(ask_for(test, 1, 5), "1+5");
}

TEST(Retransmission, WrongSession_CountedAndNotAnswered) {
    TestPublisher test;
    test.add_many(5);
    EXPECT_TRUE(ask(test.publisher, request_for("UTPBENCH02", 1, 5)).empty());
    EXPECT_TRUE(ask(test.publisher, request_for("utpbench01", 1, 5)).empty());
    EXPECT_EQ(test.publisher.retrans_rejected, 2u);
    EXPECT_EQ(test.publisher.retrans_served, 0u);
}

TEST(Retransmission, 19Bytes_IgnoredAndEndsTheCall) {
    TestPublisher test;
    test.add_many(5);
    const Bytes request = request_for("UTPBENCH01", 1, 5);
    EXPECT_FALSE(answer_request(test.publisher, request.data(), 19, {}));
    EXPECT_FALSE(answer_request(test.publisher, request.data(), 0, {}));
    EXPECT_EQ(test.publisher.retrans_served, 0u);
    EXPECT_EQ(test.publisher.retrans_rejected, 0u);
}

TEST(Retransmission, BytesBehindTheRequest_AreIgnored) {
    TestPublisher test;
    test.add_many(5);
    Bytes request = request_for("UTPBENCH01", 2, 2);
    request.resize(64, 0xff);
    EXPECT_EQ(TestPublisher::summary(ask(test.publisher, request)), "2+2");
}

TEST(Retransmission, NothingToSend_StillServed) {
    TestPublisher test;
    EXPECT_EQ(ask_for(test, 1, 10), "");  // nothing sequenced yet
    test.add_many(5);
    EXPECT_EQ(ask_for(test, 1, 0), "");
    EXPECT_EQ(ask_for(test, 6, 10), "");
    EXPECT_EQ(ask_for(test, 1000, 65535), "");
    EXPECT_EQ(test.publisher.retrans_served, 4u);
}

TEST(Retransmission, SequenceZero_ServesWhatItsCountReaches) {
    TestPublisher test;
    test.add_many(5);
    EXPECT_EQ(ask_for(test, 0, 1), "");
    EXPECT_EQ(ask_for(test, 0, 4), "1+3");
    EXPECT_EQ(ask_for(test, 0, 65535), "1+5");
}

TEST(Retransmission, SequencesAtTheEndOfAllNumbers_SendNothing) {
    TestPublisher test;
    test.add_many(5);
    for (std::uint64_t back = 0; back < 70'000; back += 999) {
        EXPECT_EQ(ask_for(test, ~std::uint64_t{0} - back, 65535), "") << back;
    }
    EXPECT_EQ(ask_for(test, std::uint64_t{1} << 63, 65535), "");
    EXPECT_EQ(test.publisher.retrans_served, 72u);
}

TEST(Retransmission, MessagesOfTheOpenPacket_AreIncluded) {
    TestPublisher test;
    test.flush_packets(2);
    test.add_many(3);
    EXPECT_EQ(test.publisher.packet_count, 3u);
    EXPECT_EQ(ask_for(test, 2, 10), "2+4");
    EXPECT_EQ(test.publisher.packet_count, 3u);
    EXPECT_EQ(test.sent(), "1+1 2+1");
}

TEST(Retransmission, DroppedAndHeldPackets_AreIncludedAndRepliesMeetNoFaults) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_every = 1;
    test.flush_packets(5);
    test.publisher.faults.drop_every = 0;
    test.publisher.faults.reorder_every = 1;
    test.flush_packets(5);
    test.publisher.faults = {1, 0, 0, 0, 9, 9, 9, 0};
    EXPECT_EQ(test.sent(), "");
    EXPECT_EQ(ask_for(test, 1, 100), "1+10");
    EXPECT_EQ(test.publisher.faults.pending_drops, 9u);
    EXPECT_EQ(test.publisher.packets_flushed, 10u);
}

TEST(Retransmission, After400000Messages_SequenceOneIsAnsweredFromTheOldestKept) {
    TestPublisher test;
    test.publisher.sink = {[](void*, const unsigned char*, std::size_t) {}, nullptr};
    test.add_many(400'100);
    EXPECT_EQ(ask_for(test, 1, 100), "");  // all of it is gone
    EXPECT_EQ(ask_for(test, 1, 101), "101+1");
    EXPECT_EQ(ask_for(test, 1, 162), "101+61 162+1");
    EXPECT_EQ(ask_for(test, 400'100, 1), "400100+1");
}

TEST(Retransmission, 65535MessagesInOneRequest_EveryOneByteForByte) {
    TestPublisher test;
    for (std::uint64_t added = 0; added < 66'000; ++added) {
        test.add(29 + added % 150);
    }
    const std::vector<Bytes> replies = ask(test.publisher, request_for("UTPBENCH01", 100, 65535));
    std::uint64_t sequence = 100;
    for (const Bytes& reply : replies) {
        ASSERT_LE(reply.size(), 1500u);
        ASSERT_EQ(get_u64(reply, 10), sequence);
        for (const Bytes& message : packet_messages(reply)) {
            ASSERT_EQ(message, TestPublisher::message_with(sequence, 29 + (sequence - 1) % 150)) << sequence;
            ++sequence;
        }
    }
    EXPECT_EQ(sequence, 100u + 65535u);
    // Each packet is as full as it can be: the next one's first message would not have fitted.
    for (std::size_t at = 0; at + 1 < replies.size(); ++at) {
        EXPECT_GT(replies[at].size() + 2 + packet_messages(replies[at + 1]).at(0).size(), 1500u);
    }
}

TEST(Retransmission, MessageTooLongForAPacket_IsPassedOver) {
    TestPublisher test;
    test.add_many(2);
    test.add(1479);
    test.add(65535);
    test.add(1478);
    test.add();
    EXPECT_EQ(ask_for(test, 1, 10), "1+2 5+1 6+1");
    EXPECT_EQ(ask_for(test, 3, 2), "");
}

// -------------------------------------------------------------------------------------------- over sockets

// The service on a free port and one requester.
struct Service {
    TestPublisher test;
    int requester = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};

    Service() {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        test.publisher.retrans_socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        socklen_t bytes = sizeof address;
        EXPECT_EQ(bind(test.publisher.retrans_socket, reinterpret_cast<sockaddr*>(&address), bytes), 0);
        EXPECT_EQ(getsockname(test.publisher.retrans_socket, reinterpret_cast<sockaddr*>(&address), &bytes),
                  0);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() {
        close(requester);
        close(test.publisher.retrans_socket);
    }

    // Loopback delivers within the call, so the datagram waits at the service when this returns.
    void send(const Bytes& request) const {
        EXPECT_EQ(sendto(requester, request.data(), request.size(), 0,
                         reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  static_cast<ssize_t>(request.size()));
    }

    // What has come back, with the port it came from.
    std::string received() const {
        std::vector<Bytes> packets;
        while (true) {
            Bytes packet(2000);
            sockaddr_in from{};
            socklen_t bytes = sizeof from;
            const ssize_t length = recvfrom(requester, packet.data(), packet.size(), MSG_DONTWAIT,
                                            reinterpret_cast<sockaddr*>(&from), &bytes);
            if (length < 0) {
                return TestPublisher::summary(packets);
            }
            EXPECT_EQ(from.sin_port, address.sin_port);  // replies come from the service's own port
            packet.resize(static_cast<std::size_t>(length));
            packets.push_back(packet);
        }
    }
};

TEST(RetransmissionService, NoSocket_ReturnsAtOnce) {
    TestPublisher test;
    serve_retransmissions(test.publisher);
    EXPECT_EQ(test.publisher.retrans_served, 0u);
}

TEST(RetransmissionService, NothingWaiting_ReturnsWithoutWaiting) {
    Service service;
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.test.publisher.retrans_served, 0u);
}

TEST(RetransmissionService, SeveralRequests_AllAnsweredInOneCall) {
    Service service;
    service.test.add_many(100);
    service.send(request_for("UTPBENCH01", 1, 10));
    service.send(request_for("WRONG     ", 1, 10));
    service.send(request_for("UTPBENCH01", 90, 100));
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "1+10 90+11");
    EXPECT_EQ(service.test.publisher.retrans_served, 2u);
    EXPECT_EQ(service.test.publisher.retrans_rejected, 1u);
}

TEST(RetransmissionService, MessagesOfTheOpenPacket_AnsweredBeforeTheyAreMulticast) {
    Service service;
    service.test.add_many(5);
    ASSERT_TRUE(service.test.packets.empty());
    service.send(request_for("UTPBENCH01", 4, 100));
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "4+2");
    EXPECT_TRUE(service.test.packets.empty());
    EXPECT_EQ(service.test.publisher.packet_count, 5u);
}

TEST(RetransmissionService, ShortDatagram_EndsTheCallAndTheRestWaits) {
    Service service;
    service.test.add_many(100);
    service.send(request_for("UTPBENCH01", 1, 10));
    service.send(Bytes(19, 'x'));
    service.send(request_for("UTPBENCH01", 90, 100));
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "1+10");
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "90+11");
}

TEST(RetransmissionService, EmptyDatagram_EndsTheCall) {
    Service service;
    service.test.add_many(10);
    service.send({});
    service.send(request_for("UTPBENCH01", 1, 10));
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "");
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "1+10");
}

// Requests for as much as there is: the call ends with the one that reaches the limit, and the next goes on
// in order.
TEST(RetransmissionService, RequestsForMoreThanTheLimit_TheRestWaitsForTheNextCallInOrder) {
    constexpr std::size_t message_bytes = 1400;
    constexpr std::uint16_t asked = 6000;
    constexpr int requests = 5;
    Service service;
    service.test.add_many(asked, message_bytes);
    for (std::uint16_t request = 0; request < requests; ++request) {
        // Each asks from another number on, so that what comes shows whose answer it is.
        service.send(request_for("UTPBENCH01", 1 + request, asked));
    }
    // The replies overflow the requester's buffer; what comes first of each answer is there, once it is read.
    for (std::uint64_t request = 1; request <= requests; ++request) {
        serve_retransmissions(service.test.publisher);
        EXPECT_EQ(service.test.publisher.retrans_served, request);
        EXPECT_EQ(service.received().substr(0, 3), std::to_string(request) + "+1");
    }
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.test.publisher.retrans_served, 5u);
}

TEST(RetransmissionService, RequestsBelowTheLimit_AllAnsweredInOneCall) {
    constexpr std::size_t reply_bytes = 20 + 2 + 1400;
    constexpr std::size_t below = retrans_reply_bytes_max / reply_bytes / 4;
    Service service;
    service.test.add_many(below, 1400);
    for (int request = 0; request < 5; ++request) {
        service.send(request_for("UTPBENCH01", 1, below));
    }
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.test.publisher.retrans_served, 5u);
}

// 127.0.0.0/8 is all this machine's: a service on every address, and requesters that ask it by two of them
// over connected sockets, which receive from that address only.
TEST(RetransmissionService, AskedBySeveralAddresses_EachReplyLeavesFromTheAddressThatWasAsked) {
    TestPublisher test;
    test.add_many(10);
    test.publisher.retrans_socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(test.publisher.retrans_socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t bytes = sizeof address;
    ASSERT_EQ(bind(test.publisher.retrans_socket, reinterpret_cast<sockaddr*>(&address), bytes), 0);
    ASSERT_EQ(getsockname(test.publisher.retrans_socket, reinterpret_cast<sockaddr*>(&address), &bytes), 0);
    for (const std::uint32_t asked : {0x7f000001u, 0x7f000002u, 0x7f010203u}) {
        address.sin_addr.s_addr = htonl(asked);
        const int requester = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_EQ(connect(requester, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const Bytes request = request_for("UTPBENCH01", 3, 4);
        ASSERT_EQ(send(requester, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
        serve_retransmissions(test.publisher);
        Bytes packet(2000);
        const ssize_t length = recv(requester, packet.data(), packet.size(), MSG_DONTWAIT);
        ASSERT_GT(length, 0) << "asked as 127." << (asked >> 16 & 255) << ".x." << (asked & 255);
        packet.resize(static_cast<std::size_t>(length));
        EXPECT_EQ(TestPublisher::summary({packet}), "3+4");
        close(requester);
    }
    close(test.publisher.retrans_socket);
}

TEST(RetransmissionService, LongDatagram_OnlyItsRequestCounts) {
    Service service;
    service.test.add_many(10);
    Bytes request = request_for("UTPBENCH01", 3, 2);
    request.resize(5000, 0xaa);
    service.send(request);
    serve_retransmissions(service.test.publisher);
    EXPECT_EQ(service.received(), "3+2");
}

}  // namespace
}  // namespace tessel
