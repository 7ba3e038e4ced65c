#include "certify/ready.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

TEST(Ready, FourForms_AreRead) {
    Ready ready;
    std::string error;
    ASSERT_TRUE(parse_ready("file:/tmp/a:b", ready, error));
    EXPECT_EQ(ready.kind, ReadyKind::file);
    EXPECT_EQ(ready.text, "/tmp/a:b");
    ASSERT_TRUE(parse_ready("port:80", ready, error));
    EXPECT_EQ(ready.kind, ReadyKind::port);
    ASSERT_TRUE(parse_ready("port:{port}", ready, error));
    ASSERT_TRUE(parse_ready("line:joined: yes", ready, error));
    EXPECT_EQ(ready.text, "joined: yes");
    ASSERT_TRUE(parse_ready("delay:1.5", ready, error));
    EXPECT_EQ(ready.kind, ReadyKind::delay);
    EXPECT_EQ(ready.seconds, 1.5);
}

TEST(Ready, OtherTexts_AreRefused) {
    for (const char* const text : {"", "file", "file:", "soon:1", "port:0", "port:65536", "port:80x",
                                   "delay:x", "delay:-1", "delay:2h"}) {
        Ready ready;
        std::string error;
        EXPECT_FALSE(parse_ready(text, ready, error)) << text;
        EXPECT_NE(error, "") << text;
    }
}

TEST(Ready, Members_AreCountedOnAllInterfaces) {
    const std::string igmp =
        "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
        "1\tlo        :     2      V3\n"
        "\t\t\t\t0302FFEF     2 0:00000000\t\t0\n"
        "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
        "2\teth0      :     1      V3\n"
        "\t\t\t\t0302FFEF     1 0:00000000\t\t0\n";
    EXPECT_EQ(group_members(igmp, "239.255.2.3"), 3U);
    EXPECT_EQ(group_members(igmp, "224.0.0.1"), 1U);
    EXPECT_EQ(group_members(igmp, "239.255.2.4"), 0U);
    EXPECT_EQ(group_members(igmp, "nonsense"), 0U);
}

TEST(Ready, SocketsOfAPort_AreListeningOrOfUdp) {
    const std::string table =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 0100007F:0050 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 111 1 0\n"
        "   1: 0100007F:0050 0100007F:9999 01 00000000:00000000 00:00000000 00000000     0        0 222 1 0\n"
        "   2: 0100007F:1050 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 333 1 "
        "0\n";
    EXPECT_EQ(sockets_of_port(table, true, 0x50), std::set<std::string>{"111"});
    EXPECT_EQ(sockets_of_port(table, false, 0x50), (std::set<std::string>{"111", "222"}));
    EXPECT_TRUE(sockets_of_port(table, true, 0x51).empty());
}

}  // namespace
}  // namespace tessel::certify
