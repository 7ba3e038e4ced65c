#include "capture/repair.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel::capture {
namespace {

using testing::TestMarket;

// A market whose packets a second receiver gets, as far as they are sent.
struct Market {
    Market() {
        std::string error;
        open_capture(wire.file, "", error);
        wire.clock = &market.clock;
        market.publisher.sink = {hear, this};
        begin_repair(repair, wire, market.publisher, "UTPBENCH01");
        market.start_of_day();
    }
    static void hear(void* context, const unsigned char* packet, std::size_t length) {
        hear_multicast(static_cast<Market*>(context)->repair, {packet, length});
    }
    testing::StderrCapture log;
    TestMarket market;
    Wire wire;
    Repair repair;
};

TEST(Repair, NothingMissing_NothingIsRequested) {
    Market m;
    m.market.run_ticks(10);
    step_repair(m.repair, 1000);
    EXPECT_EQ(next_repair_ms(m.repair), INT64_MAX);
    EXPECT_EQ(m.wire.file.frames, 0u);
}

TEST(Repair, Loss_IsRequestedAfterAMomentAndComesBack) {
    Market m;
    m.market.publisher.faults.pending_drops = 1;
    m.market.run_ticks(1);
    EXPECT_EQ(next_repair_ms(m.repair), INT64_MAX) << "nobody can know yet";
    m.repair.now_ms = 100;
    m.market.run_ticks(1);
    EXPECT_EQ(next_repair_ms(m.repair), 105);
    step_repair(m.repair, 104);
    EXPECT_EQ(m.wire.file.frames, 0u);
    step_repair(m.repair, 105);
    EXPECT_EQ(m.wire.file.frames, 2u) << "a request and its reply";
    EXPECT_EQ(m.market.publisher.retrans_served, 1u);
    EXPECT_EQ(next_repair_ms(m.repair), INT64_MAX);
    EXPECT_EQ(m.repair.sequencer.next, m.market.publisher.next_sequence);
}

TEST(Repair, HeldPacket_ClosesTheGapByItself) {
    Market m;
    m.market.publisher.faults.pending_reorders = 1;
    m.market.run_ticks(2);
    step_repair(m.repair, 1000);
    EXPECT_EQ(m.market.publisher.retrans_served, 0u);
    EXPECT_EQ(m.repair.sequencer.counters.reordered_packets, 1u);
}

}  // namespace
}  // namespace tessel::capture
