#include "snapshot/server.h"
#include "unit/snapshot/loopback_service.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

using testing::as_bytes;
using testing::field;
using testing::login;
using testing::packet;

TEST(SoupParser, PacketCutAnywhere_IsWholeAtItsLastByteOnly) {
    const std::string input = login("LATE", "UTPBENCH01", "1");
    ASSERT_EQ(input.size(), 49u);
    SoupPacket parsed;
    std::size_t consumed = 0;
    for (std::size_t cut = 0; cut < input.size(); ++cut) {
        EXPECT_FALSE(next_soup_packet(as_bytes(input).first(cut), parsed, consumed)) << cut;
    }
    ASSERT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(parsed.type, 'L');
    EXPECT_EQ(parsed.payload.size(), soup_login_request_bytes);
    EXPECT_EQ(consumed, input.size());
}

TEST(SoupParser, BytesAfterAPacket_StayForTheNext) {
    const std::string input = packet('R') + packet('O') + std::string("\0", 1);
    SoupPacket parsed;
    std::size_t consumed = 0;
    ASSERT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(parsed.type, 'R');
    EXPECT_EQ(consumed, 3u);
    ASSERT_TRUE(next_soup_packet(as_bytes(input).subspan(3), parsed, consumed));
    EXPECT_EQ(parsed.type, 'O');
    EXPECT_FALSE(next_soup_packet(as_bytes(input).subspan(6), parsed, consumed));
}

TEST(SoupParser, LengthZero_NeverCompletes) {
    const std::string input(1000, '\0');
    SoupPacket parsed;
    std::size_t consumed = 0;
    EXPECT_FALSE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_TRUE(is_blocked(as_bytes(input)));
    EXPECT_FALSE(is_blocked(as_bytes(input).first(1)));
    EXPECT_FALSE(is_blocked({}));
    EXPECT_FALSE(is_blocked(as_bytes(packet('R'))));
}

TEST(SoupParser, LongestPacket_IsAccepted) {
    const std::string input = packet('U', std::string(65534, 'x'));
    ASSERT_EQ(input.size(), soup_packet_bytes_max);
    SoupPacket parsed;
    std::size_t consumed = 0;
    EXPECT_FALSE(next_soup_packet(as_bytes(input).first(input.size() - 1), parsed, consumed));
    EXPECT_TRUE(next_soup_packet(as_bytes(input), parsed, consumed));
    EXPECT_EQ(consumed, input.size());
}

TEST(LoginFields, PaddedFields_AreCutAndStripped) {
    const std::string payload =
        field("AB", 6) + field("pass", 10) + std::string("SESS\0\0 \0  ", 10) + field("1", 20);
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "AB");
    EXPECT_EQ(request.session, "SESS");
    EXPECT_EQ(request.sequence, 1u);
}

TEST(LoginFields, FullWidths_AreKept) {
    const std::string payload = "ABCDEF" + field("", 10) + "UTPBENCH01" + "18446744073709551615";
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "ABCDEF");
    EXPECT_EQ(request.session, "UTPBENCH01");
    EXPECT_EQ(request.sequence, 18446744073709551615u);
}

TEST(LoginFields, ShortPayload_GivesEmptyFields) {
    const std::string payload(45, 'A');
    const LoginRequest request = read_login(as_bytes(payload));
    EXPECT_EQ(request.username, "");
    EXPECT_EQ(request.session, "");
    EXPECT_EQ(request.sequence, 0u);
}

TEST(LoginFields, AnySequenceText_IsReadAsStrtoullReadsIt) {
    const auto sequence_of = [](const std::string& text) {
        return read_login(as_bytes(field("U", 6) + field("", 20) + field(text, 20))).sequence;
    };
    EXPECT_EQ(sequence_of(""), 0u);
    EXPECT_EQ(sequence_of("                   1"), 1u);
    EXPECT_EQ(sequence_of("abc"), 0u);
    EXPECT_EQ(sequence_of("2x"), 2u);
    EXPECT_EQ(sequence_of("-1"), 18446744073709551615u);
    EXPECT_EQ(sequence_of("99999999999999999999"), 18446744073709551615u);
    EXPECT_EQ(sequence_of(std::string("\0"
                                      "5",
                                      2)),
              0u);
}

}  // namespace
}  // namespace tessel
