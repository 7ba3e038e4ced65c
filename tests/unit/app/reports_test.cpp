#include "app/reports.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

TEST(StatsLine, FreshRun_AllZerosInPrintingOrder) {
    EXPECT_EQ(
        stats_line(FeedStats{}),
        "quotes=0 adf_quotes=0 nbbo_changes=0 sip_generated=0 trades=0 exchange_prints=0 trf_prints=0 "
        "cross_prints=0 odd_lot_prints=0 sweeps=0 cancels=0 errors=0 corrections=0 asofs=0 bands=0 halts=0 "
        "pauses=0 quote_resumes=0 trade_resumes=0 mwcb=0 collars=0 wipeouts=0 snapshots=0 "
        "snapshot_rejects=0");
}

TEST(StatsLine, DistinctCounters_EachFollowsItsOwnName) {
    FeedStats stats;
    std::uint64_t* const fields[] = {
        &stats.quotes,         &stats.adf_quotes,      &stats.nbbo_changes,  &stats.sip_generated,
        &stats.trades,         &stats.exchange_prints, &stats.trf_prints,    &stats.cross_prints,
        &stats.odd_lot_prints, &stats.sweeps,          &stats.cancels,       &stats.errors,
        &stats.corrections,    &stats.asofs,           &stats.bands,         &stats.halts,
        &stats.pauses,         &stats.quote_resumes,   &stats.trade_resumes, &stats.mwcb,
        &stats.collars,        &stats.wipeouts,        &stats.snapshots,     &stats.snapshot_rejects};
    std::uint64_t value = 101;
    for (std::uint64_t* field : fields) {
        *field = value++;
    }
    EXPECT_EQ(
        stats_line(stats),
        "quotes=101 adf_quotes=102 nbbo_changes=103 sip_generated=104 trades=105 exchange_prints=106 "
        "trf_prints=107 cross_prints=108 odd_lot_prints=109 sweeps=110 cancels=111 errors=112 "
        "corrections=113 "
        "asofs=114 bands=115 halts=116 pauses=117 quote_resumes=118 trade_resumes=119 mwcb=120 collars=121 "
        "wipeouts=122 snapshots=123 snapshot_rejects=124");
}

TEST(StatsLine, LargestCount_IsPrintedUnsigned) {
    FeedStats stats;
    stats.quotes = 18446744073709551615u;
    EXPECT_EQ(stats_line(stats).substr(0, 27), "quotes=18446744073709551615");
}

TEST(FaultsSummary, BeforeTheFirstPacket_FourZeros) {
    const testing::TestMarket market;
    EXPECT_EQ(faults_summary(market.publisher), "tessel faults: sent 0 dropped 0 duplicated 0 reordered 0");
    EXPECT_EQ(
        stats_report(FeedStats{}, market.publisher),
        stats_line(FeedStats{}) + " next_seq=1 tessel faults: sent 0 dropped 0 duplicated 0 reordered 0");
}

TEST(FaultsSummary, EverySecondOfTenPacketsDropped_SentFiveDroppedFive) {
    testing::TestMarket market;
    testing::StderrCapture capture;
    market.publisher.faults.drop_every = 2;
    const unsigned char message[3] = {1, 2, 3};
    for (int packet = 0; packet < 10; ++packet) {
        append_message(market.publisher, message, sizeof message);
        flush_packet(market.publisher);
    }
    EXPECT_EQ(faults_summary(market.publisher), "tessel faults: sent 5 dropped 5 duplicated 0 reordered 0");
    EXPECT_EQ(market.packets.size(), 5u);
}

TEST(FaultsSummary, DuplicatedAndHeldPackets_CountAsSent) {
    testing::TestMarket market;
    testing::StderrCapture capture;
    market.publisher.faults.pending_dups = 1;
    const unsigned char message[3] = {1, 2, 3};
    append_message(market.publisher, message, sizeof message);
    flush_packet(market.publisher);
    market.publisher.faults.pending_reorders = 1;
    append_message(market.publisher, message, sizeof message);
    flush_packet(market.publisher);
    EXPECT_EQ(faults_summary(market.publisher), "tessel faults: sent 2 dropped 0 duplicated 1 reordered 1");
}

TEST(Blocks, SummaryAndStop_AreLaidOutAsLogReadersExpect) {
    testing::TestMarket market;
    FeedStats stats;
    stats.quotes = 11;
    stats.trades = 12;
    stats.snapshots = 13;
    market.publisher.messages_sequenced = 1;
    market.publisher.packets_flushed = 9;
    market.publisher.faults_dropped = 3;
    market.publisher.retrans_served = 4;
    market.publisher.next_sequence = 77;
    EXPECT_EQ(summary_block(stats, market.publisher),
              "[tessel] msgs 1 packets 9 dropped 3 retrans 4 quotes 11 trades 12 snapshots 13\n"
              "tessel faults: sent 6 dropped 3 duplicated 0 reordered 0\n");
    EXPECT_EQ(stop_block(stats, market.publisher),
              "tessel faults: sent 6 dropped 3 duplicated 0 reordered 0\n"
              "bench: stats " +
                  stats_line(stats) + " next_seq=77\n[tessel] stopped\n");
}

}  // namespace
}  // namespace tessel
