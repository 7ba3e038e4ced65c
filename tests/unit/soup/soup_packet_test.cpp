#include "soup/soup_packet.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using hand_made::raw;

TEST(SoupPacket, Login_HasItsFieldsPaddedAndCut) {
    EXPECT_EQ(soup_login("LATECOMER", "pw", "UTPBENCH01"), std::string("\0\x2f", 2) +
                                                               "LLATECOpw        UTPBENCH01"
                                                               "1                   ");
    EXPECT_EQ(soup_empty_packet('R'), std::string("\0\1R", 3));
}

TEST(SoupPacket, PacketsCutAnywhere_ComeOutWhole) {
    const std::string stream =
        std::string("\0\1H", 3) + std::string("\0\4Sabc", 6) + std::string("\0\2Jx", 4);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        SoupReader reader;
        std::string seen;
        bool broken = false;
        SoupPacket packet;
        for (const std::string& part : {stream.substr(0, cut), stream.substr(cut)}) {
            soup_append(reader, raw(part), part.size());
            while (soup_next(reader, packet, &broken)) {
                seen += packet.type;
                seen.append(reinterpret_cast<const char*>(packet.payload), packet.length);
                seen += '.';
            }
        }
        EXPECT_EQ(seen, "H.Sabc.Jx.") << cut;
        EXPECT_FALSE(broken);
    }
}

TEST(SoupPacket, LengthZero_IsBroken) {
    SoupReader reader;
    soup_append(reader, raw(std::string("\0\0S", 3)), 3);
    SoupPacket packet;
    bool broken = false;
    EXPECT_FALSE(soup_next(reader, packet, &broken));
    EXPECT_TRUE(broken);
}

}  // namespace
}  // namespace tessel::receiver
