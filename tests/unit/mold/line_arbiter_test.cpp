#include "mold/line_arbiter.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace tessel::receiver {
namespace {

constexpr std::int64_t patience_ms = 100;

LineArbiter arbiter_of(std::size_t lines, std::uint64_t origin = 1) {
    LineArbiter arbiter = make_arbiter(lines);
    begin_run(arbiter, origin);
    return arbiter;
}

TEST(LineArbiter, NumberOfLines_IsHeldToItsLimits) {
    EXPECT_EQ(make_arbiter(0).lines.size(), 1u);
    EXPECT_EQ(make_arbiter(1000).lines.size(), lines_max);
    EXPECT_TRUE(make_arbiter(1).copies.empty());
}

TEST(LineArbiter, FirstCopyCountsAsFirst_TheOtherLinesAsSecond) {
    LineArbiter arbiter = arbiter_of(2);
    EXPECT_TRUE(note_copies(arbiter, 0, 1, 11, 1'000));
    EXPECT_TRUE(note_copies(arbiter, 1, 6, 16, 4'000));
    EXPECT_EQ(arbiter.lines[0].counters.first, 10u);
    EXPECT_EQ(arbiter.lines[1].counters.first, 5u);
    EXPECT_EQ(arbiter.lines[1].counters.second, 5u);
    EXPECT_EQ(arbiter.lines[1].counters.behind_ns_max, 3'000);
    EXPECT_EQ(arbiter.lines[0].counters.behind_ns_max, 0);
}

TEST(LineArbiter, RepeatedPacketOfOneLine_IsCountedOnce) {
    LineArbiter arbiter = arbiter_of(2);
    note_copies(arbiter, 0, 1, 11, 1'000);
    EXPECT_FALSE(note_copies(arbiter, 0, 1, 11, 9'000));
    EXPECT_TRUE(note_copies(arbiter, 0, 10, 12, 9'000));
    EXPECT_EQ(arbiter.lines[0].counters.first, 11u);
    EXPECT_EQ(arbiter.lines[0].counters.second, 0u);
    EXPECT_EQ(arbiter.lines[0].counters.behind_ns_max, 0);
}

TEST(LineArbiter, NumbersBeforeReceptionBegan_AreNotCounted) {
    LineArbiter arbiter = arbiter_of(2, 100);
    EXPECT_FALSE(note_copies(arbiter, 1, 90, 100, 1));
    EXPECT_TRUE(note_copies(arbiter, 1, 95, 101, 1));
    EXPECT_EQ(arbiter.lines[1].counters.first, 1u);
}

TEST(LineArbiter, CopyBeyondTheMemory_IsNotCounted) {
    LineArbiter arbiter = arbiter_of(2);
    note_copies(arbiter, 0, 5, 6, 1);
    note_copies(arbiter, 0, 5 + remembered_copies, 6 + remembered_copies, 2);
    EXPECT_FALSE(note_copies(arbiter, 1, 5, 6, 3));
    EXPECT_EQ(arbiter.lines[1].counters.first + arbiter.lines[1].counters.second, 0u);
}

TEST(LineArbiter, NumberOfANewRun_IsAFirstCopyAgain) {
    LineArbiter arbiter = arbiter_of(2);
    note_copies(arbiter, 0, 1, 2, 1);
    end_run(arbiter, 2, 0);
    begin_run(arbiter, 1);
    EXPECT_TRUE(note_copies(arbiter, 1, 1, 2, 9));
    EXPECT_EQ(arbiter.lines[1].counters.first, 1u);
    EXPECT_EQ(arbiter.numbers_before, 1u);
}

TEST(LineArbiter, PassedByAll_IsTheSlowestLine) {
    LineArbiter arbiter = arbiter_of(3);
    note_progress(arbiter, arbiter.lines[0], 50, 50, 0);
    note_progress(arbiter, arbiter.lines[1], 30, 50, 10);
    EXPECT_EQ(passed_by_all(arbiter, 50, 20, patience_ms), 1u);
    note_progress(arbiter, arbiter.lines[2], 40, 50, 30);
    EXPECT_EQ(passed_by_all(arbiter, 50, 30, patience_ms), 30u);
}

TEST(LineArbiter, LineThatBringsNothingNew_IsWaitedForAsLongAsThePatience) {
    LineArbiter arbiter = arbiter_of(2);
    note_progress(arbiter, arbiter.lines[0], 50, 50, 1'000);
    EXPECT_EQ(next_stall_ms(arbiter, 1'040, patience_ms), 60);
    EXPECT_EQ(passed_by_all(arbiter, 50, 1'099, patience_ms), 1u);
    EXPECT_EQ(passed_by_all(arbiter, 50, 1'100, patience_ms), 50u);
    EXPECT_EQ(next_stall_ms(arbiter, 1'100, patience_ms), INT64_MAX);
    // Repeating what it had brought is no progress; going on is.
    note_progress(arbiter, arbiter.lines[1], 1, 50, 1'110);
    EXPECT_EQ(passed_by_all(arbiter, 50, 1'110, patience_ms), 50u);
    note_progress(arbiter, arbiter.lines[1], 20, 50, 1'120);
    EXPECT_EQ(passed_by_all(arbiter, 50, 1'120, patience_ms), 20u);
    EXPECT_EQ(next_stall_ms(arbiter, 1'120, patience_ms), patience_ms);
}

TEST(LineArbiter, LevelLines_AreNotBehindHoweverLongTheFeedIsSilent) {
    LineArbiter arbiter = arbiter_of(2);
    note_progress(arbiter, arbiter.lines[0], 50, 50, 0);
    note_progress(arbiter, arbiter.lines[1], 50, 50, 1);
    EXPECT_EQ(next_stall_ms(arbiter, 10'000, patience_ms), INT64_MAX);
    // The one that speaks first after the silence does not make the other one stalled.
    note_progress(arbiter, arbiter.lines[0], 60, 60, 10'000);
    EXPECT_EQ(passed_by_all(arbiter, 60, 10'000, patience_ms), 50u);
}

}  // namespace
}  // namespace tessel::receiver
