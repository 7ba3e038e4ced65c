#include "mold/publisher.h"

#include "unit/mold/transport_bench.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_text;
using testing::get_u16;
using testing::get_u64;
using testing::packet_messages;
using testing::StderrCapture;
using testing::TestPublisher;

TEST(MoldPublisher, InitialState_IsThatOfAnEmptyPacketBeforeMessageOne) {
    TestPublisher test;
    const MoldPublisher& publisher = test.publisher;
    EXPECT_EQ(publisher.feed_socket, -1);
    EXPECT_EQ(publisher.retrans_socket, -1);
    EXPECT_EQ(publisher.packet_length, 20u);
    EXPECT_EQ(publisher.packet_count, 0u);
    EXPECT_EQ(publisher.packet_first_sequence, 1u);
    EXPECT_EQ(publisher.next_sequence, 1u);
    EXPECT_EQ(last_sequence(publisher), 0u);
    EXPECT_EQ(publisher.messages_sequenced, 0u);
    EXPECT_EQ(publisher.packets_flushed, 0u);
    EXPECT_EQ(message_count(publisher.history), 0u);
    EXPECT_TRUE(publisher.held_packet.empty());
}

TEST(MoldPublisher, Reset_ForgetsAnEarlierRun) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_every = 1;
    test.publisher.faults.pending_dups = 1;
    test.add_many(100);
    flush_packet(test.publisher);
    reset_publisher(test.publisher, test.clock, "OTHER");
    EXPECT_EQ(test.publisher.faults.drop_every, 0u);
    EXPECT_EQ(test.publisher.faults.pending_dups, 0u);
    EXPECT_EQ(test.publisher.faults_dropped, 0u);
    EXPECT_EQ(message_count(test.publisher.history), 0u);
    EXPECT_EQ(test.add(), 1u);
}

TEST(MoldPublisher, Session_PaddedWithBlanksOrCutToTenLetters) {
    const std::pair<std::string, std::string> rows[] = {{"", "          "},
                                                        {"AB", "AB        "},
                                                        {"UTPBENCH01", "UTPBENCH01"},
                                                        {"UTPBENCH01234", "UTPBENCH01"}};
    for (const auto& [configured, sent] : rows) {
        TestPublisher test(configured);
        test.flush_packets(1);
        ASSERT_EQ(test.packets.size(), 1u);
        EXPECT_EQ(get_text(test.packets[0], 0, 10), sent);
        EXPECT_EQ(test.publisher.session_name, configured);
    }
}

TEST(MoldPublisher, FirstMessage_GetsNumberOneAndThePacketCarriesIt) {
    TestPublisher test;
    const Bytes message{'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(append_message(test.publisher, message.data(), message.size()), 1u);
    flush_packet(test.publisher);
    ASSERT_EQ(test.packets.size(), 1u);
    const std::string expected("UTPBENCH01\0\0\0\0\0\0\0\1\0\1\0\5hello", 27);
    EXPECT_EQ(std::string(test.packets[0].begin(), test.packets[0].end()), expected);
    EXPECT_EQ(test.publisher.next_sequence, 2u);
    EXPECT_EQ(test.publisher.packet_first_sequence, 2u);
    EXPECT_EQ(test.publisher.messages_sequenced, 1u);
    EXPECT_EQ(test.publisher.packets_flushed, 1u);
}

TEST(MoldPublisher, MessagesOf22Bytes_61APacket) {
    TestPublisher test;
    test.add_many(61);
    EXPECT_TRUE(test.packets.empty());
    EXPECT_EQ(test.publisher.packet_length, 1484u);
    EXPECT_EQ(test.add(), 62u);
    ASSERT_EQ(test.packets.size(), 1u);
    EXPECT_EQ(test.packets[0].size(), 1484u);
    test.add_many(61 + 10);
    flush_packet(test.publisher);
    EXPECT_EQ(test.sent(), "1+61 62+61 123+11");
}

TEST(MoldPublisher, Packet_CarriesItsMessagesInOrder) {
    TestPublisher test;
    std::vector<Bytes> expected;
    for (std::size_t length = 29; length < 140; length += 11) {
        expected.push_back(TestPublisher::message_with(test.publisher.next_sequence, length));
        test.add(length);
    }
    flush_packet(test.publisher);
    ASSERT_EQ(test.packets.size(), 1u);
    EXPECT_EQ(packet_messages(test.packets[0]), expected);
}

TEST(MoldPublisher, PacketOf1500Bytes_IsFullAndStillOpen) {
    TestPublisher test;
    test.add(738);
    test.add(738);  // 20 + 2 * 740
    EXPECT_EQ(test.publisher.packet_length, 1500u);
    EXPECT_TRUE(test.packets.empty());
    test.add(0);  // two bytes more
    EXPECT_EQ(test.sent(), "1+2");
    EXPECT_EQ(test.packets[0].size(), 1500u);
}

TEST(MoldPublisher, EmptyFlush_SendsNothingAndUsesNoPacketNumber) {
    TestPublisher test;
    test.publisher.last_flush_ms = 77;
    test.publisher.faults.pending_drops = 1;
    flush_packet(test.publisher);
    flush_packet(test.publisher);
    EXPECT_TRUE(test.packets.empty());
    EXPECT_EQ(test.publisher.packets_flushed, 0u);
    EXPECT_EQ(test.publisher.last_flush_ms, 77);
    EXPECT_EQ(test.publisher.faults.pending_drops, 1u);
}

TEST(MoldPublisher, Flush_NotesTheSteadyTimeWhateverTheDecision) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_drops = 1;
    test.publisher.faults.pending_reorders = 1;
    for (std::uint64_t at = 6000; at < 6003; ++at) {  // dropped, held, sent
        test.clock.simulated_steady_ms = at;
        test.flush_packets(1);
        EXPECT_EQ(test.publisher.last_flush_ms, static_cast<std::int64_t>(at));
        EXPECT_EQ(test.publisher.packet_length, 20u);
        EXPECT_EQ(test.publisher.packet_count, 0u);
    }
    EXPECT_EQ(test.sent(), "3+1 2+1");
}

TEST(MoldPublisher, After400001Messages_TheOldestKeptIsNumberTwo) {
    TestPublisher test;
    test.publisher.sink = {[](void*, const unsigned char*, std::size_t) {}, nullptr};
    test.add_many(400'000);
    EXPECT_EQ(message_count(test.publisher.history), 400'000u);
    EXPECT_EQ(test.publisher.history.first_index + 1, 1u);
    test.add_many(1);
    EXPECT_EQ(message_count(test.publisher.history), 400'000u);
    EXPECT_EQ(test.publisher.history.first_index + 1, 2u);
    EXPECT_EQ(test.publisher.messages_sequenced, 400'001u);
}

TEST(MoldPublisher, HeartbeatWhileMessagesAreOpen_DataPacketThenTwentyBytes) {
    TestPublisher test;
    test.add_many(3);
    test.clock.simulated_steady_ms = 9000;
    send_heartbeat(test.publisher);
    ASSERT_EQ(test.packets.size(), 2u);
    EXPECT_EQ(test.sent(), "1+3 4+0");
    EXPECT_EQ(std::string(test.packets[1].begin(), test.packets[1].end()),
              std::string("UTPBENCH01\0\0\0\0\0\0\0\4\0\0", 20));
    EXPECT_EQ(test.publisher.last_flush_ms, 9000);
    EXPECT_EQ(test.publisher.packets_flushed, 1u);
    test.flush_packets(1);
    EXPECT_EQ(test.sent(), "1+3 4+0 4+1");
}

TEST(MoldPublisher, HeartbeatOfAnIdleFeed_UsesNoPacketNumber) {
    TestPublisher test;
    test.clock.simulated_steady_ms = 6000;
    send_heartbeat(test.publisher);
    send_heartbeat(test.publisher);
    EXPECT_EQ(test.sent(), "1+0 1+0");
    EXPECT_EQ(test.publisher.packets_flushed, 0u);
    EXPECT_EQ(test.publisher.last_flush_ms, 6000);
}

TEST(MoldPublisher, LongestMessageThatFits_1478Bytes) {
    TestPublisher test;
    EXPECT_EQ(test.add(1478), 1u);
    flush_packet(test.publisher);
    EXPECT_EQ(test.sent(), "1+1");
    EXPECT_EQ(test.packets[0].size(), 1500u);
}

TEST(MoldPublisher, MessageOf1479Bytes_TakesANumberAndIsNeverSent) {
    TestPublisher test;
    test.add();
    EXPECT_EQ(test.add(1479), 2u);  // flushes what is open
    EXPECT_EQ(test.sent(), "1+1");
    EXPECT_EQ(test.publisher.packet_count, 0u);
    EXPECT_EQ(message_count(test.publisher.history), 2u);
    EXPECT_EQ(test.publisher.messages_sequenced, 2u);
    EXPECT_EQ(test.add(), 3u);
    EXPECT_EQ(test.add(), 4u);
    flush_packet(test.publisher);
    // The header carries the skipped number, one below the packet's first message.
    EXPECT_EQ(test.sent(), "1+1 2+2");
    test.flush_packets(1);
    EXPECT_EQ(test.sent(), "1+1 2+2 5+1");
}

TEST(MoldPublisher, MessageTooLongForTheRestOfThePacket_GoesIntoTheNext) {
    TestPublisher test;
    test.add(100);
    test.add(1400);
    EXPECT_EQ(test.sent(), "1+1");
    flush_packet(test.publisher);
    EXPECT_EQ(test.sent(), "1+1 2+1");
}

// ------------------------------------------------------------------------------------------------- faults

TEST(PublisherFaults, DropEvery10_PacketsTenTwentyThirtyAreNamedAndMissing) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_every = 10;
    for (int packet = 1; packet <= 30; ++packet) {
        test.add_many(2);
        flush_packet(test.publisher);
    }
    EXPECT_EQ(errors.take(),
              "tessel fault: dropped seq 19 (packet 10, 2 message(s))\n"
              "tessel fault: dropped seq 39 (packet 20, 2 message(s))\n"
              "tessel fault: dropped seq 59 (packet 30, 2 message(s))\n");
    EXPECT_EQ(test.packets.size(), 27u);
    EXPECT_EQ(test.publisher.faults_dropped, 3u);
    EXPECT_EQ(test.publisher.packets_flushed, 30u);
    EXPECT_EQ(message_count(test.publisher.history), 60u);
}

TEST(PublisherFaults, DropBurst5Of3_PacketsFiveSixSeven) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_burst_start = 5;
    test.publisher.faults.drop_burst_length = 3;
    test.flush_packets(9);
    EXPECT_EQ(test.sent(), "1+1 2+1 3+1 4+1 8+1 9+1");
    EXPECT_EQ(test.publisher.faults_dropped, 3u);
}

TEST(PublisherFaults, DropTwoWhileDropEveryMatchesTheNext_OneIsLeft) {
    TestPublisher test;
    StderrCapture errors;
    test.flush_packets(1);
    test.publisher.faults.drop_every = 2;
    test.publisher.faults.pending_drops = 2;
    test.flush_packets(1);
    EXPECT_EQ(test.publisher.faults.pending_drops, 1u);
    EXPECT_EQ(test.publisher.faults_dropped, 1u);
    EXPECT_EQ(errors.take(), "tessel fault: dropped seq 2 (packet 2, 1 message(s))\n");
}

TEST(PublisherFaults, ReorderOne_SentRightBehindTheFollowingPacket) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_reorders = 1;
    test.flush_packets(3);
    EXPECT_EQ(test.sent(), "2+1 1+1 3+1");
    EXPECT_EQ(packet_messages(test.packets[1]).at(0), TestPublisher::message_with(1, 22));
    EXPECT_EQ(test.publisher.faults_reordered, 1u);
    EXPECT_TRUE(test.publisher.held_packet.empty());
    EXPECT_EQ(errors.take(), "tessel fault: reordered seq 1 (held behind the next packet)\n");
}

TEST(PublisherFaults, TwoHeldInARow_TheFirstIsLost) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_reorders = 2;
    test.flush_packets(4);
    EXPECT_EQ(test.sent(), "3+1 2+1 4+1");
    EXPECT_EQ(test.publisher.faults_reordered, 2u);
    EXPECT_EQ(message_count(test.publisher.history), 4u);  // the lost packet's message can be asked for
}

TEST(PublisherFaults, HeldAndDuplicated_HeldOnlyAndThePendingDuplicateIsGone) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_dups = 1;
    test.publisher.faults.pending_reorders = 1;
    test.flush_packets(3);
    EXPECT_EQ(test.sent(), "2+1 1+1 3+1");
    EXPECT_EQ(test.publisher.faults_duplicated, 0u);
    EXPECT_EQ(test.publisher.faults.pending_dups, 0u);
}

TEST(PublisherFaults, Duplicated_TheSameBytesTwiceThenTheHeldPacket) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_reorders = 1;
    test.flush_packets(1);
    test.publisher.faults.pending_dups = 1;
    test.flush_packets(2);
    EXPECT_EQ(test.sent(), "2+1 2+1 1+1 3+1");
    EXPECT_EQ(test.packets[0], test.packets[1]);
    EXPECT_EQ(test.publisher.faults_duplicated, 1u);
    EXPECT_EQ(errors.take(),
              "tessel fault: reordered seq 1 (held behind the next packet)\n"
              "tessel fault: duplicated seq 2\n");
}

TEST(PublisherFaults, HeldPacket_OutlivesHeartbeatsAndDroppedPackets) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.pending_reorders = 1;
    test.flush_packets(1);
    send_heartbeat(test.publisher);
    test.publisher.faults.pending_drops = 1;
    test.flush_packets(1);
    send_heartbeat(test.publisher);
    EXPECT_EQ(test.sent(), "2+0 3+0");
    EXPECT_FALSE(test.publisher.held_packet.empty());
    test.flush_packets(1);
    EXPECT_EQ(test.sent(), "2+0 3+0 3+1 1+1");
}

TEST(PublisherFaults, Heartbeats_AreNeverDroppedDuplicatedOrHeld) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_every = 1;
    test.publisher.faults.pending_drops = 5;
    test.publisher.faults.pending_dups = 5;
    test.publisher.faults.pending_reorders = 5;
    send_heartbeat(test.publisher);
    send_heartbeat(test.publisher);
    EXPECT_EQ(test.sent(), "1+0 1+0");
    EXPECT_EQ(errors.take(), "");
    EXPECT_EQ(test.publisher.faults.pending_drops, 5u);
    EXPECT_EQ(test.publisher.faults.pending_dups, 5u);
    EXPECT_EQ(test.publisher.faults.pending_reorders, 5u);
}

TEST(PublisherFaults, DropEvery3DupEvery5ReorderEvery4_WholeHistoryOfTwentyPackets) {
    TestPublisher test;
    StderrCapture errors;
    test.publisher.faults.drop_every = 3;
    test.publisher.faults.dup_every = 5;
    test.publisher.faults.reorder_every = 4;
    test.flush_packets(20);
    // 3 6 9 12 15 18 dropped; 4 8 16 20 held; 5 10 duplicated; held ones follow the next that is sent.
    EXPECT_EQ(test.sent(), "1+1 2+1 5+1 5+1 4+1 7+1 10+1 10+1 8+1 11+1 13+1 14+1 17+1 16+1 19+1");
    EXPECT_EQ(test.publisher.faults_dropped, 6u);
    EXPECT_EQ(test.publisher.faults_duplicated, 2u);
    EXPECT_EQ(test.publisher.faults_reordered, 4u);
}

TEST(PublisherFaults, LineNamesTheFirstMessage_AlsoBehindASkippedNumber) {
    TestPublisher test;
    StderrCapture errors;
    test.add(1479);
    test.publisher.faults.pending_drops = 1;
    test.flush_packets(1);
    EXPECT_EQ(errors.take(), "tessel fault: dropped seq 2 (packet 1, 1 message(s))\n");
}

// ------------------------------------------------------------------------------------------------ sockets

// A UDP socket on a free loopback port: the publisher accepts a unicast address as its group.
struct Receiver {
    int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::uint16_t port = 0;

    Receiver() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t bytes = sizeof address;
        EXPECT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), bytes), 0);
        EXPECT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &bytes), 0);
        port = ntohs(address.sin_port);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() {
        close(socket);
    }

    Bytes receive() const {
        pollfd wait{socket, POLLIN, 0};
        EXPECT_EQ(poll(&wait, 1, 20'000), 1);
        Bytes packet(2000);
        const ssize_t length = recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return packet;
    }
};

// Closes what open_publisher opened.
struct OpenPublisher {
    Clock clock;
    MoldPublisher publisher;

    OpenPublisher(const std::string& group, std::uint16_t port, const std::string& interface,
                  std::uint16_t retrans_port) {
        open_publisher(publisher, clock, group, port, interface, retrans_port, "SESSION");
    }
    OpenPublisher(const OpenPublisher&) = delete;
    OpenPublisher& operator=(const OpenPublisher&) = delete;
    ~OpenPublisher() {
        close(publisher.feed_socket);
        if (publisher.retrans_socket != -1) {
            close(publisher.retrans_socket);
        }
    }
};

int ip_option(int socket, int option) {
    unsigned char value = 99;
    socklen_t bytes = sizeof value;
    EXPECT_EQ(getsockopt(socket, IPPROTO_IP, option, &value, &bytes), 0);
    return value;
}

TEST(PublisherSockets, FeedSocket_MulticastOptionsAreSetAndItBlocks) {
    const OpenPublisher test("239.255.25.177", 25177, "127.0.0.1", 0);
    EXPECT_EQ(ip_option(test.publisher.feed_socket, IP_MULTICAST_TTL), 1);
    EXPECT_EQ(ip_option(test.publisher.feed_socket, IP_MULTICAST_LOOP), 1);
    in_addr interface {};
    socklen_t bytes = sizeof interface;
    EXPECT_EQ(getsockopt(test.publisher.feed_socket, IPPROTO_IP, IP_MULTICAST_IF, &interface, &bytes), 0);
    EXPECT_EQ(interface.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(fcntl(test.publisher.feed_socket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(ntohs(test.publisher.group_port), 25177);
    EXPECT_EQ(ntohl(test.publisher.group_address), 0xefff19b1u);
    EXPECT_EQ(test.publisher.packet_first_sequence, 1u);
}

TEST(PublisherSockets, RetransPortZero_OpensNoService) {
    const OpenPublisher test("239.255.25.177", 25177, "127.0.0.1", 0);
    EXPECT_EQ(test.publisher.retrans_socket, -1);
}

TEST(PublisherSockets, RetransSocket_BoundToEveryAddressAndNonBlocking) {
    std::uint16_t port = 0;
    {
        const Receiver finder;
        port = finder.port;
    }
    const OpenPublisher test("239.255.25.177", 25177, "127.0.0.1", port);
    ASSERT_NE(test.publisher.retrans_socket, -1);
    EXPECT_EQ(fcntl(test.publisher.retrans_socket, F_GETFL) & ~O_ACCMODE, O_NONBLOCK);
    sockaddr_in bound{};
    socklen_t bytes = sizeof bound;
    EXPECT_EQ(getsockname(test.publisher.retrans_socket, reinterpret_cast<sockaddr*>(&bound), &bytes), 0);
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(bound.sin_port), port);
    int reuse = 0;
    socklen_t reuse_bytes = sizeof reuse;
    EXPECT_EQ(getsockopt(test.publisher.retrans_socket, SOL_SOCKET, SO_REUSEADDR, &reuse, &reuse_bytes), 0);
    EXPECT_EQ(reuse, 1);
    int notes_asked_address = 0;
    bytes = sizeof notes_asked_address;
    EXPECT_EQ(getsockopt(test.publisher.retrans_socket, IPPROTO_IP, IP_PKTINFO, &notes_asked_address, &bytes),
              0);
    EXPECT_EQ(notes_asked_address, 1);
}

TEST(PublisherSockets, TextsThatAreNoAddresses_LeaveZeroAndTheFeedRuns) {
    OpenPublisher test("not a group", 25177, "localhost", 0);
    EXPECT_EQ(test.publisher.group_address, 0u);
    const unsigned char message[29] = {};
    EXPECT_EQ(append_message(test.publisher, message, sizeof message), 1u);
    flush_packet(test.publisher);
    send_heartbeat(test.publisher);
    EXPECT_EQ(test.publisher.packets_flushed, 1u);
}

TEST(PublisherSockets, PacketsAndHeartbeats_ArriveAtTheDestination) {
    const Receiver receiver;
    OpenPublisher test("127.0.0.1", receiver.port, "127.0.0.1", 0);
    const unsigned char message[4] = {'a', 'b', 'c', 'd'};
    append_message(test.publisher, message, sizeof message);
    flush_packet(test.publisher);
    const Bytes packet = receiver.receive();
    EXPECT_EQ(std::string(packet.begin(), packet.end()),
              std::string("SESSION   \0\0\0\0\0\0\0\1\0\1\0\4abcd", 26));
    send_heartbeat(test.publisher);
    const Bytes heartbeat = receiver.receive();
    EXPECT_EQ(std::string(heartbeat.begin(), heartbeat.end()),
              std::string("SESSION   \0\0\0\0\0\0\0\2\0\0", 20));
}

}  // namespace
}  // namespace tessel
