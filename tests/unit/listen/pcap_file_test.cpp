#include "listen/pcap_file.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <unistd.h>

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
    bool complete = false;
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
    seen.complete = read_pcap(path, sinks, seen.counters, &seen.error);
    std::filesystem::remove(path);
    return seen;
}

TEST(ListenPcap, Datagrams_OfEveryLinkType) {
    const std::string ethernet = std::string(12, 'e') + std::string("\x08\0", 2);
    const std::pair<std::uint32_t, std::string> types[] = {
        {1, ethernet},
        {1, std::string(12, 'e') + std::string("\x81\0\0\1\x08\0", 6)},
        {0, little(2, 4)},
        {101, ""},
        {113, std::string(14, 'c') + std::string("\x08\0", 2)},
        {276, std::string("\x08\0", 2) + std::string(18, 'c')},
    };
    for (const auto& [type, prefix] : types) {
        const Capture seen =
            read_back(file_header(type) + record(prefix + udp("one")) + record(prefix + udp("two")));
        EXPECT_TRUE(seen.complete) << seen.error;
        EXPECT_EQ(seen.datagrams, "one.two.") << type;
        EXPECT_EQ(seen.time_ns, 3'000'005'000);
    }
}

TEST(ListenPcap, TcpStream_IsPutInOrder_EachByteOnce) {
    const std::string content = file_header(101) + record(tcp(UINT32_MAX - 2, 0x02, "")) +
                                record(tcp(UINT32_MAX - 1, 0x10, "ab")) + record(tcp(2, 0x10, "ef")) +
                                record(tcp(UINT32_MAX - 1, 0x10, "ab")) + record(tcp(0, 0x10, "cd")) +
                                record(tcp(1, 0x10, "def")) + record(tcp(4, 0x10, "gh"));
    const Capture seen = read_back(content);
    EXPECT_TRUE(seen.complete) << seen.error;
    EXPECT_EQ(seen.stream, "abcdefgh");
}

TEST(ListenPcap, ConnectionWithoutItsBeginning_IsLeftOut) {
    EXPECT_EQ(read_back(file_header(101) + record(tcp(5, 0x10, "ab"))).stream, "");
}

TEST(ListenPcap, FaultyFiles_AreNamed) {
    EXPECT_NE(read_back("").error.find("not a little-endian pcap file"), std::string::npos);
    EXPECT_NE(read_back(little(0x0a0d0d0a, 4) + std::string(40, 'x')).error.find("pcapng"),
              std::string::npos);
    EXPECT_NE(read_back(file_header(147)).error.find("link type 147"), std::string::npos);
    const std::string whole = file_header(101) + record(udp("one"));
    for (std::size_t length = file_header(101).size() + 1; length < whole.size(); ++length) {
        EXPECT_FALSE(read_back(whole.substr(0, length)).complete) << length;
    }
    PcapCounters counters;
    std::string error;
    EXPECT_FALSE(read_pcap("/nonexistent/file", {}, counters, &error));
    EXPECT_EQ(error, "/nonexistent/file: No such file or directory");
}

TEST(ListenPcap, PacketsThatAreCutInside_AreCounted) {
    const std::string packet = udp("one");
    for (std::size_t length = 0; length < packet.size(); ++length) {
        const Capture seen = read_back(file_header(101) + record(packet.substr(0, length)));
        EXPECT_TRUE(seen.complete);
        EXPECT_EQ(seen.datagrams, "");
        EXPECT_EQ(seen.counters.other, 1u) << length;
    }
}

}  // namespace
}  // namespace tessel::listen
