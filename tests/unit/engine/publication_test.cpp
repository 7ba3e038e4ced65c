#include "engine/publication.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <cstring>

namespace tessel {
namespace {

using testing::StderrCapture;
using testing::TestMarket;

TEST(PublishMessage, Message_IsAppendedUnderTheNextNumber) {
    TestMarket market({.symbols = "A"});
    MessageHeader header;
    header.category = 'Z';
    begin_message(market.engine.writer, header, 4);
    std::memset(market.engine.writer.bytes.get() + common_header_bytes, 0, 4);
    EXPECT_EQ(publish_message(market.engine), 1u);
    EXPECT_EQ(publish_message(market.engine), 2u);
    EXPECT_EQ(market.message(2).size(), 33u);
    EXPECT_EQ(testing::letters(market.message(1)).front(), 'Z');
}

TEST(LastSequence, BeforeTheFirstMessage_IsZero) {
    TestMarket market({.symbols = "A"});
    EXPECT_EQ(last_sequence(market.engine), 0u);
    begin_message(market.engine.writer, {}, 0);
    publish_message(market.engine);
    EXPECT_EQ(last_sequence(market.engine), 1u);
}

TEST(FlushMessages, OpenPacket_IsSentOnce) {
    TestMarket market({.symbols = "A"});
    begin_message(market.engine.writer, {}, 0);
    publish_message(market.engine);
    EXPECT_TRUE(market.packets.empty());
    flush_messages(market.engine);
    flush_messages(market.engine);
    EXPECT_EQ(market.packets.size(), 1u);
}

TEST(Announce, Event_IsOneLineWithTheLastSequenceNumber) {
    TestMarket market({.symbols = "A"});
    begin_message(market.engine.writer, {}, 0);
    publish_message(market.engine);
    StderrCapture log;
    announce(market.engine, "100%s halted");
    announce(market.engine, "A LULD pause", " (collar)");
    EXPECT_EQ(log.take(), "bench: 100%s halted at seq 1\nbench: A LULD pause at seq 1 (collar)\n");
}

}  // namespace
}  // namespace tessel
