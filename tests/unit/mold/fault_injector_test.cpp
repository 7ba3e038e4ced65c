#include "mold/fault_injector.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

const char* name_of(FaultDecision decision) {
    switch (decision) {
        case FaultDecision::send: return "send";
        case FaultDecision::send_twice: return "twice";
        case FaultDecision::drop: return "drop";
        case FaultDecision::hold: return "hold";
    }
    return "?";
}

// The decisions for packets first to last, in one text.
std::string decisions(FaultInjector& faults, std::uint64_t first, std::uint64_t last) {
    std::string all;
    for (std::uint64_t number = first; number <= last; ++number) {
        all += std::string(all.empty() ? "" : " ") + name_of(decide_fault(faults, number));
    }
    return all;
}

// One packet, what is set, what comes out, and what is left of the pending counts.
struct Row {
    const char* situation;
    FaultInjector
        faults;  // drop_every, burst length, dup_every, reorder_every, drops, dups, reorders, burst start
    std::uint64_t packet_number;
    FaultDecision decision;
    std::uint32_t drops_left;
    std::uint32_t dups_left;
    std::uint32_t reorders_left;
};

const Row rows[] = {
    {"nothing set", {}, 1, FaultDecision::send, 0, 0, 0},
    {"drop_every hits", {10, 0, 0, 0, 0, 0, 0, 0}, 20, FaultDecision::drop, 0, 0, 0},
    {"drop_every misses", {10, 0, 0, 0, 0, 0, 0, 0}, 21, FaultDecision::send, 0, 0, 0},
    {"drop_every 1 hits all", {1, 0, 0, 0, 0, 0, 0, 0}, 1, FaultDecision::drop, 0, 0, 0},
    {"before the burst", {0, 3, 0, 0, 0, 0, 0, 5}, 4, FaultDecision::send, 0, 0, 0},
    {"burst's first", {0, 3, 0, 0, 0, 0, 0, 5}, 5, FaultDecision::drop, 0, 0, 0},
    {"burst's last", {0, 3, 0, 0, 0, 0, 0, 5}, 7, FaultDecision::drop, 0, 0, 0},
    {"after the burst", {0, 3, 0, 0, 0, 0, 0, 5}, 8, FaultDecision::send, 0, 0, 0},
    {"burst of one", {0, 1, 0, 0, 0, 0, 0, 5}, 5, FaultDecision::drop, 0, 0, 0},
    {"after the burst of one", {0, 1, 0, 0, 0, 0, 0, 5}, 6, FaultDecision::send, 0, 0, 0},
    {"burst of none", {0, 0, 0, 0, 0, 0, 0, 5}, 5, FaultDecision::send, 0, 0, 0},
    {"burst from 0", {0, 2, 0, 0, 0, 0, 0, 0}, 1, FaultDecision::drop, 0, 0, 0},
    {"burst from 0 ends before 2", {0, 2, 0, 0, 0, 0, 0, 0}, 2, FaultDecision::send, 0, 0, 0},
    {"burst at the end of all numbers",
     {0, 4294967295u, 0, 0, 0, 0, 0, ~0ull},
     3,
     FaultDecision::send,
     0,
     0,
     0},
    {"longest burst", {0, 4294967295u, 0, 0, 0, 0, 0, 1}, 4294967295ull, FaultDecision::drop, 0, 0, 0},
    {"after the longest burst",
     {0, 4294967295u, 0, 0, 0, 0, 0, 1},
     4294967296ull,
     FaultDecision::send,
     0,
     0,
     0},
    {"pending drop", {0, 0, 0, 0, 2, 0, 0, 0}, 3, FaultDecision::drop, 1, 0, 0},
    {"pending drop used up by drop_every", {3, 0, 0, 0, 2, 0, 0, 0}, 3, FaultDecision::drop, 1, 0, 0},
    {"pending drop used up by the burst", {0, 1, 0, 0, 1, 0, 0, 3}, 3, FaultDecision::drop, 0, 0, 0},
    {"dropped: other pendings stay", {0, 0, 1, 1, 1, 5, 6, 0}, 1, FaultDecision::drop, 0, 5, 6},
    {"dup_every hits", {0, 0, 5, 0, 0, 0, 0, 0}, 10, FaultDecision::send_twice, 0, 0, 0},
    {"dup_every misses", {0, 0, 5, 0, 0, 0, 0, 0}, 11, FaultDecision::send, 0, 0, 0},
    {"pending dup", {0, 0, 0, 0, 0, 2, 0, 0}, 1, FaultDecision::send_twice, 0, 1, 0},
    {"pending dup used up by dup_every", {0, 0, 1, 0, 0, 2, 0, 0}, 1, FaultDecision::send_twice, 0, 1, 0},
    {"reorder_every hits", {0, 0, 0, 4, 0, 0, 0, 0}, 8, FaultDecision::hold, 0, 0, 0},
    {"reorder_every misses", {0, 0, 0, 4, 0, 0, 0, 0}, 9, FaultDecision::send, 0, 0, 0},
    {"pending reorder", {0, 0, 0, 0, 0, 0, 2, 0}, 1, FaultDecision::hold, 0, 0, 1},
    {"pending reorder used up by reorder_every", {0, 0, 0, 1, 0, 0, 2, 0}, 1, FaultDecision::hold, 0, 0, 1},
    {"held and duplicated: held, the pending dup is gone",
     {0, 0, 0, 0, 0, 2, 1, 0},
     1,
     FaultDecision::hold,
     0,
     1,
     0},
    {"both periods: held", {0, 0, 2, 2, 0, 0, 0, 0}, 4, FaultDecision::hold, 0, 0, 0},
    {"all periods: dropped", {2, 0, 2, 2, 0, 0, 0, 0}, 4, FaultDecision::drop, 0, 0, 0},
};

TEST(FaultDecisions, EachRowOfTheTable_DecidesAsItSays) {
    for (const Row& row : rows) {
        FaultInjector faults = row.faults;
        EXPECT_STREQ(name_of(decide_fault(faults, row.packet_number)), name_of(row.decision))
            << row.situation;
        EXPECT_EQ(faults.pending_drops, row.drops_left) << row.situation;
        EXPECT_EQ(faults.pending_dups, row.dups_left) << row.situation;
        EXPECT_EQ(faults.pending_reorders, row.reorders_left) << row.situation;
        EXPECT_EQ(faults.drop_every, row.faults.drop_every) << row.situation;
        EXPECT_EQ(faults.dup_every, row.faults.dup_every) << row.situation;
        EXPECT_EQ(faults.reorder_every, row.faults.reorder_every) << row.situation;
    }
}

TEST(FaultDecisions, PendingCounts_RunDownToZeroAndStay) {
    FaultInjector faults;
    faults.pending_drops = 2;
    faults.pending_dups = 1;
    faults.pending_reorders = 2;
    EXPECT_EQ(decisions(faults, 1, 7), "drop drop hold hold send send send");
    EXPECT_EQ(faults.pending_drops + faults.pending_dups + faults.pending_reorders, 0u);
}

TEST(FaultDecisions, DropTwoWhileDropEveryMatchesTheNext_ThatPacketUsesOneUp) {
    FaultInjector faults;
    faults.drop_every = 10;
    faults.pending_drops = 2;
    EXPECT_EQ(decisions(faults, 10, 13), "drop drop send send");
}

TEST(FaultDecisions, PeriodsOf3And5And4_FirstSixty) {
    FaultInjector faults;
    faults.drop_every = 3;
    faults.dup_every = 5;
    faults.reorder_every = 4;
    for (std::uint64_t number = 1; number <= 60; ++number) {
        const FaultDecision expected = number % 3 == 0   ? FaultDecision::drop
                                       : number % 4 == 0 ? FaultDecision::hold
                                       : number % 5 == 0 ? FaultDecision::send_twice
                                                         : FaultDecision::send;
        EXPECT_STREQ(name_of(decide_fault(faults, number)), name_of(expected)) << number;
    }
}

}  // namespace
}  // namespace tessel
