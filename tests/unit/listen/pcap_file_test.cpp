#include "listen/pcap_file.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>

namespace tessel::listen {
namespace {

using receiver::hand_made::Bytes;

std::string little(std::uint64_t value, std::size_t width) {
    std::string bytes;
    for (std::size_t i = 0; i < width; ++i) {
        bytes += static_cast<char>((value >> (8 * i)) & 0xff);
    }
    return bytes;
}

std::string file_header(std::uint32_t link_type) {
    return little(0xa1b2c3d4, 4) + little(2, 2) + little(4, 2) + little(0, 8) + little(65535, 4) +
           little(link_type, 4);
}

std::string record(const std::string& data) {
    return little(3, 4) + little(5, 4) + little(data.size(), 4) + little(data.size(), 4) + data;
}

std::string ip(unsigned char protocol, const std::string& body) {
    Bytes b;
    b.number(0x45, 1).number(0, 1).number(20 + body.size(), 2).number(0, 4).number(64, 1).number(protocol, 1);
    return b.number(0, 2).number(0x7f000001, 4).number(0xefff19b1, 4).bytes(body).data;
}

std::string udp(const std::string& data) {
    return ip(
        17,
        Bytes{}.number(1000, 2).number(25177, 2).number(8 + data.size(), 2).number(0, 2).bytes(data).data);
}

std::string tcp(std::uint32_t sequence, unsigned char flags, const std::string& data) {
    Bytes b;
    b.number(25179, 2).number(4000, 2).number(sequence, 4).number(0, 4).number(0x50, 1).number(flags, 1);
    return ip(6, b.number(0, 6).bytes(data).data);
}

struct Capture {
    std::string datagrams;
    std::string stream;
    std::int64_t time_ns = 0;
    PcapCounters counters;
    std::string error;
    PcapResult result = PcapResult::refused;
};

Capture read_back(const std::string& content) {
    std::string path = testing::TempDir() + "tessel-pcap-" + std::to_string(getpid()) + ".pcap";
    std::ofstream(path, std::ios::binary) << content;
    Capture seen;
    PcapSinks sinks;
    sinks.datagram = [&](const PcapFlow& flow, std::int64_t time_ns, const unsigned char* p, std::size_t n) {
        EXPECT_EQ(flow.destination, 0xefff19b1u);
        EXPECT_EQ(flow.destination_port, 25177);
        seen.time_ns = time_ns;
        seen.datagrams += std::string(reinterpret_cast<const char*>(p), n) + ".";
    };
    sinks.stream = [&](const PcapFlow& flow, std::int64_t, const unsigned char* p, std::size_t n) {
        EXPECT_EQ(flow.source_port, 25179);
        seen.stream.append(reinterpret_cast<const char*>(p), n);
    };
    sinks.wants_stream = [](const PcapFlow&) { return true; };
    seen.result = read_pcap(path, sinks, seen.counters, seen.error);
    std::filesystem::remove(path);
    return seen;
}

TEST(PcapFile, Datagrams_OfEveryLinkType) {
    const std::string ethernet = std::string(12, 'e') + std::string("\x08\0", 2);
    const std::pair<std::uint32_t, std::string> types[] = {
        {1, ethernet},
        {1, std::string(12, 'e') + std::string("\x81\0\0\1\x08\0", 6)},
        {0, little(2, 4)},
        {0, std::string("\0\0\0\2", 4)},
        {108, std::string("\0\0\0\2", 4)},
        {12, ""},
        {228, ""},
        {101, ""},
        {113, std::string(14, 'c') + std::string("\x08\0", 2)},
        {276, std::string("\x08\0", 2) + std::string(18, 'c')},
    };
    for (const auto& [type, prefix] : types) {
        const Capture seen =
            read_back(file_header(type) + record(prefix + udp("one")) + record(prefix + udp("two")));
        EXPECT_EQ(seen.result, PcapResult::whole) << seen.error;
        EXPECT_EQ(seen.datagrams, "one.two.") << type;
        EXPECT_EQ(seen.time_ns, 3'000'005'000);
    }
}

TEST(PcapFile, TcpStream_IsPutInOrder_EachByteOnce) {
    const std::string content = file_header(101) + record(tcp(UINT32_MAX - 2, 0x02, "")) +
                                record(tcp(UINT32_MAX - 1, 0x10, "ab")) + record(tcp(2, 0x10, "ef")) +
                                record(tcp(UINT32_MAX - 1, 0x10, "ab")) + record(tcp(0, 0x10, "cd")) +
                                record(tcp(1, 0x10, "def")) + record(tcp(4, 0x10, "gh"));
    const Capture seen = read_back(content);
    EXPECT_EQ(seen.result, PcapResult::whole) << seen.error;
    EXPECT_EQ(seen.stream, "abcdefgh");
}

TEST(PcapFile, ConnectionWithoutItsBeginning_IsLeftOut) {
    EXPECT_EQ(read_back(file_header(101) + record(tcp(5, 0x10, "ab"))).stream, "");
}

TEST(PcapFile, FilesThatAreNoCaptures_AreRefused) {
    for (const std::string& content : {std::string(), std::string("text"), std::string(100, 'x')}) {
        const Capture seen = read_back(content);
        EXPECT_EQ(seen.result, PcapResult::refused);
        EXPECT_NE(seen.error.find("no capture that can be read"), std::string::npos) << seen.error;
    }
    const Capture other = read_back(file_header(147));
    EXPECT_EQ(other.result, PcapResult::refused);
    EXPECT_NE(other.error.find("link type 147"), std::string::npos);
    PcapCounters counters;
    std::string error;
    EXPECT_EQ(read_pcap("/nonexistent/file", {}, counters, error), PcapResult::refused);
    EXPECT_EQ(error, "/nonexistent/file: No such file or directory");
}

TEST(PcapFile, FileThatEndsInsideARecord_IsReadUpToThere) {
    const std::string first = file_header(101) + record(udp("one"));
    const std::string whole = first + record(udp("two"));
    for (std::size_t length = first.size() + 1; length < whole.size(); ++length) {
        const Capture seen = read_back(whole.substr(0, length));
        EXPECT_EQ(seen.result, PcapResult::broken) << length;
        EXPECT_EQ(seen.datagrams, "one.");
        EXPECT_NE(seen.error.find(": truncated after 1 packets"), std::string::npos) << seen.error;
    }
}

TEST(PcapFile, RecordOfAnImpossibleLength_EndsTheReading) {
    const Capture seen = read_back(file_header(101) + record(udp("one")) + little(3, 4) + little(5, 4) +
                                   little(0x7fffffff, 4) + little(0x7fffffff, 4) + record(udp("two")));
    EXPECT_EQ(seen.result, PcapResult::broken);
    EXPECT_EQ(seen.datagrams, "one.");
    EXPECT_NE(seen.error.find(": broken after 1 packets ("), std::string::npos) << seen.error;
}

TEST(PcapFile, BigEndianFilesAndNanoseconds_AreRead) {
    const auto big = [](const std::string& bytes) { return std::string(bytes.rbegin(), bytes.rend()); };
    std::string content = big(little(0xa1b23c4d, 4)) + big(little(2, 2)) + big(little(4, 2)) +
                          std::string(8, '\0') + big(little(65535, 4)) + big(little(101, 4));
    const std::string data = udp("one");
    content += big(little(3, 4)) + big(little(5, 4)) + big(little(data.size(), 4)) +
               big(little(data.size(), 4)) + data;
    const Capture seen = read_back(content);
    EXPECT_EQ(seen.datagrams, "one.") << seen.error;
    EXPECT_EQ(seen.time_ns, 3'000'000'005);
}

TEST(PcapFile, PacketsThatAreCutInside_AreCounted) {
    const std::string packet = udp("one");
    for (std::size_t length = 0; length < packet.size(); ++length) {
        const Capture wrong = read_back(file_header(101) + record(packet.substr(0, length)));
        EXPECT_EQ(wrong.result, PcapResult::whole);
        EXPECT_EQ(wrong.datagrams, "");
        EXPECT_EQ(wrong.counters.other, 1u) << length;
        // The same bytes, but the record says that the packet was longer.
        const std::string cut = little(3, 4) + little(5, 4) + little(length, 4) + little(packet.size(), 4) +
                                packet.substr(0, length);
        EXPECT_EQ(read_back(file_header(101) + cut).counters.cut, 1u) << length;
    }
}

// A part of a packet: `offset` and `end` in its body, which begins with the UDP header.
std::string fragment(const std::string& packet, std::size_t offset, std::size_t end, std::uint16_t id) {
    const std::string body = packet.substr(20);
    const bool more = end < body.size();
    Bytes b;
    b.number(0x45, 1).number(0, 1).number(20 + end - offset, 2).number(id, 2);
    b.number((more ? 0x2000 : 0) | offset / 8, 2).number(64, 1).number(17, 1).number(0, 2);
    return b.number(0x7f000001, 4).number(0xefff19b1, 4).bytes(body.substr(offset, end - offset)).data;
}

TEST(PcapFile, Fragments_ArePutTogetherInAnyOrder) {
    const std::string packet = udp(std::string(30, 'x'));
    const Capture seen = read_back(file_header(101) + record(fragment(packet, 24, 38, 7)) +
                                   record(fragment(packet, 0, 16, 8)) + record(fragment(packet, 0, 16, 7)) +
                                   record(fragment(packet, 8, 24, 7)));
    EXPECT_EQ(seen.datagrams, std::string(30, 'x') + ".");
    EXPECT_EQ(seen.counters.incomplete, 1u) << "the other packet";
    EXPECT_EQ(seen.result, PcapResult::whole);
}

TEST(PcapFile, VlanTags_AreStepsToTheSamePacket) {
    const std::string tags("\x88\xa8\0\1\x81\0\0\2\x08\0", 10);
    EXPECT_EQ(read_back(file_header(1) + record(std::string(12, 'e') + tags + udp("one"))).datagrams, "one.");
    const std::string cooked = std::string(14, 'c') + std::string("\x81\0\0\2\x08\0", 6);
    EXPECT_EQ(read_back(file_header(113) + record(cooked + udp("one"))).datagrams, "one.");
}

}  // namespace
}  // namespace tessel::listen
