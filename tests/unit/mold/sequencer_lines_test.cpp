#include "mold/sequencer.h"
#include "support/hand_made.h"
#include "unit/mold/sequencer_bench.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace tessel::receiver {
namespace {

using hand_made::raw;

constexpr std::size_t line_a = 0;
constexpr std::size_t line_b = 1;

// A sequencer with several lines.
struct Lines : Bench {
    explicit Lines(bool can_request = true, std::uint64_t first = 1, SequencerSettings settings = {})
        : Bench(can_request, first, with_lines(settings)) {}

    static SequencerSettings with_lines(SequencerSettings settings) {
        settings.lines = std::max<std::size_t>(settings.lines, 2);
        return settings;
    }

    void on(std::size_t line, std::uint64_t from, std::uint64_t end) {
        const std::string data = numbers(from, end);
        on_packet(sequencer, raw(data), data.size(), {now_ms, PacketSource::multicast, line, 0});
        on_timer(sequencer, now_ms);
    }

    const LineCounters& counters(std::size_t line) const {
        return sequencer.arbiter.lines[line].counters;
    }
};

TEST(SequencerLines, CopiesOfBothLines_AreDeliveredOnce) {
    Lines lines;
    lines.on(line_a, 1, 6);
    lines.wait(3);
    lines.on(line_b, 1, 4);
    lines.on(line_b, 4, 8);
    lines.on(line_a, 6, 8);
    EXPECT_EQ(lines.out, lines.upto(7));
    EXPECT_EQ(lines.sequencer.counters.duplicate_packets, 0u);
    EXPECT_EQ(lines.sequencer.counters.reordered_packets, 0u);
    EXPECT_EQ(lines.counters(line_a).first, 5u);
    EXPECT_EQ(lines.counters(line_a).second, 2u);
    EXPECT_EQ(lines.counters(line_b).first, 2u);
    EXPECT_EQ(lines.counters(line_b).second, 5u);
    EXPECT_EQ(lines.counters(line_b).behind_ns_max, 3'000'000);
    EXPECT_EQ(missing_on_line(lines.sequencer, line_a), 0u);
    EXPECT_EQ(missing_on_line(lines.sequencer, line_b), 0u);
}

TEST(SequencerLines, GapOfOneLine_IsFilledByTheOtherWithoutARequest) {
    Lines lines;
    lines.on(line_a, 1, 3);
    lines.on(line_a, 6, 8);
    lines.wait(50);
    EXPECT_TRUE(lines.requests.empty());
    lines.on(line_b, 1, 5);
    lines.on(line_b, 5, 8);
    EXPECT_EQ(lines.out, lines.upto(7));
    lines.wait(1000);
    EXPECT_TRUE(lines.requests.empty());
    EXPECT_EQ(lines.sequencer.counters.gaps, 0u);
    EXPECT_EQ(lines.sequencer.counters.missed, 0u);
    EXPECT_EQ(lines.sequencer.counters.reordered_packets, 0u);
    EXPECT_EQ(missing_on_line(lines.sequencer, line_a), 3u);
    EXPECT_EQ(missing_on_line(lines.sequencer, line_b), 0u);
}

TEST(SequencerLines, OnlyWhatBothLinesPassed_IsRequested) {
    Lines lines;
    lines.on(line_a, 1, 3);
    lines.on(line_a, 8, 10);  // 3 to 7 are missing on A
    lines.on(line_b, 1, 3);
    lines.on(line_b, 5, 6);  // 3 and 4 on B, too
    lines.wait(5);
    EXPECT_EQ(lines.requests, (std::vector<Request>{{3, 2}}));
    EXPECT_EQ(lines.sequencer.counters.gaps, 1u);
    EXPECT_EQ(lines.sequencer.counters.missed, 2u);
    lines.reply(3, 5);
    EXPECT_EQ(lines.out, lines.upto(5));
    lines.on(line_b, 6, 10);
    EXPECT_EQ(lines.out, lines.upto(9));
    EXPECT_EQ(lines.requests.size(), 1u);
}

TEST(SequencerLines, SilentLine_IsWaitedForAsLongAsThePatience) {
    Lines lines;
    lines.on(line_a, 1, 3);
    lines.on(line_a, 5, 7);
    EXPECT_EQ(next_timer_ms(lines.sequencer, lines.now_ms), 100);
    lines.wait(99);
    EXPECT_TRUE(lines.requests.empty());
    lines.wait(1);
    lines.wait(5);
    EXPECT_EQ(lines.requests, (std::vector<Request>{{3, 2}}));
    // The line is known to be silent: the next gap is requested without waiting for it.
    lines.on(line_a, 9, 10);
    lines.wait(5);
    EXPECT_EQ(lines.requests.size(), 2u);
}

TEST(SequencerLines, LineThatRepeatsOldPacketsForever_DoesNotHoldAGapOpen) {
    Lines lines(false);
    lines.on(line_b, 1, 3);
    lines.on(line_a, 1, 3);
    lines.on(line_a, 5, 7);
    for (int i = 0; i < 100; ++i) {
        lines.wait(10);
        lines.on(line_b, 1, 3);
        lines.on(line_b, 3, 3);
    }
    EXPECT_EQ(lines.lost, (std::vector<Request>{{3, 2}}));
    EXPECT_EQ(lines.out.back(), 6u);
}

TEST(SequencerLines, LineThatCreepsForward_HoldsGapsOpenUntilTheBufferIsFull) {
    SequencerSettings settings;
    settings.buffer_bytes_max = 4'000;
    Lines lines(false, 1, settings);
    std::uint64_t next = 3;
    for (std::uint64_t behind = 1; behind < 2'000; ++behind) {
        lines.wait(10);
        lines.on(line_b, behind, behind + 1);
        lines.on(line_a, next, next + 20);  // every third message is missing on A, and on B for a long time
        next += 30;
        ASSERT_LE(lines.sequencer.waiting_bytes, 4'000u);
        ASSERT_LE(lines.sequencer.waiting.size(), 400u);
    }
    EXPECT_GT(lines.out.back(), 10'000u);
}

TEST(SequencerLines, WithoutRequests_WhatBothLinesLost_IsAbandoned) {
    Lines lines(false);
    lines.on(line_a, 1, 3);
    lines.on(line_b, 1, 2);
    lines.on(line_a, 4, 6);
    lines.on(line_b, 4, 6);
    lines.wait(499);
    EXPECT_TRUE(lines.lost.empty());
    lines.wait(1);
    EXPECT_EQ(lines.lost, (std::vector<Request>{{3, 1}}));
    EXPECT_EQ(lines.sequencer.counters.lost, 1u);
    EXPECT_EQ(lines.out, (std::vector<std::uint64_t>{1, 2, 4, 5}));
}

TEST(SequencerLines, LineFarBehindWhereReceptionBegan_IsNoRestart) {
    Lines lines(true, 0);
    lines.on(line_a, 100'000, 100'010);
    for (std::uint64_t number = 50; number < 1'000; number += 10) {
        lines.on(line_b, number, number + 10);
        lines.on(line_b, number + 10, number + 10);
        lines.wait(1);
    }
    EXPECT_TRUE(lines.restarts.empty());
    EXPECT_EQ(lines.sequencer.counters.sequence_resets, 0u);
    EXPECT_EQ(lines.out.size(), 10u);
    EXPECT_EQ(lines.counters(line_b).first + lines.counters(line_b).second, 0u);
}

TEST(SequencerLines, LineFurtherBehindThanTheMemory_IsNoRestart) {
    Lines lines;
    const std::uint64_t distance = remembered_messages + 1'000;
    for (std::uint64_t number = 1; number < 2 * distance; number += 100) {
        lines.on(line_a, number, number + 100);
        if (number > distance) {
            lines.on(line_b, number - distance, number - distance + 100);
        }
    }
    EXPECT_TRUE(lines.restarts.empty());
    EXPECT_TRUE(nothing_missing(lines.sequencer));
    EXPECT_EQ(lines.counters(line_b).first, 0u);
    EXPECT_GT(lines.counters(line_b).second, 60'000u);
}

TEST(SequencerLines, CopyWithFlippedBits_IsNoRestart) {
    Lines lines;
    lines.on(line_a, 1, 10);
    lines.run = "damaged";
    lines.on(line_b, 1, 10);
    EXPECT_TRUE(lines.restarts.empty());
    EXPECT_EQ(lines.out, lines.upto(9));
}

TEST(SequencerLines, Restart_IsFoundOnce_AndTheSlowerLinesRestOfTheOldRunIsPassedOver) {
    Lines lines;
    for (std::uint64_t number = 1; number < 5'000; number += 100) {
        lines.on(line_a, number, number + 100);
        if (number > 500) {
            lines.on(line_b, number - 500, number - 400);
        }
    }
    const std::size_t delivered = lines.out.size();
    EXPECT_EQ(delivered, 5'000u);
    // A is in the new run; B still brings the end of the old one, and then the new one from its beginning.
    lines.run = "new";
    lines.on(line_a, 1, 11);
    EXPECT_EQ(lines.restarts, (std::vector<std::uint64_t>{1}));
    lines.run = "";
    lines.on(line_b, 4'501, 4'801);
    lines.on(line_b, 4'801, 5'001);
    lines.run = "new";
    lines.on(line_a, 11, 21);
    lines.on(line_b, 1, 11);
    lines.on(line_b, 11, 31);
    EXPECT_EQ(lines.restarts.size(), 1u);
    EXPECT_EQ(lines.sequencer.counters.old_run, 2u);
    EXPECT_EQ(lines.out, lines.upto(30));
    EXPECT_TRUE(nothing_missing(lines.sequencer));
    EXPECT_EQ(lines.counters(line_b).first, 10u);
    EXPECT_EQ(missing_on_line(lines.sequencer, line_b), 500u);  // the old run's 4,501 to 5,000
}

TEST(SequencerLines, LineThatWasDarkDuringARestart_JoinsTheNewRunAgain) {
    Lines lines;
    lines.on(line_a, 1, 101);
    lines.on(line_b, 1, 101);
    lines.run = "new";
    for (std::uint64_t number = 1; number < 1'001; number += 10) {
        lines.on(line_a, number, number + 10);
        lines.wait(10);
    }
    EXPECT_EQ(lines.restarts.size(), 1u);
    lines.on(line_b, 991, 1'001);  // above where B was in the old run
    lines.wait(3'000);
    lines.on(line_a, 1'001, 1'011);
    lines.on(line_b, 1'001, 1'011);
    EXPECT_EQ(lines.restarts.size(), 1u);
    EXPECT_EQ(lines.out, lines.upto(1'010));
    EXPECT_EQ(lines.counters(line_b).second, 100u + 10u);
}

TEST(SequencerLines, LongHistoryThatIsGone_IsSearchedForWithTwoLines) {
    Lines lines;
    lines.on(line_a, 100'001, 100'011);
    lines.on(line_b, 100'001, 100'011);
    std::size_t at = 0;
    for (int i = 0; i < 2'000 && lines.out.empty(); ++i) {
        const std::size_t end = lines.requests.size();
        lines.serve(at, 90'000, 100'011);
        at = end;
        lines.wait(20);
    }
    EXPECT_EQ(lines.expired, (std::vector<Request>{{1, 89'999}}));
    ASSERT_FALSE(lines.out.empty());
    EXPECT_EQ(lines.out.front(), 90'000u);
}

// One line's packets in the order in which they arrive: [first, end) at a time.
struct Arriving {
    std::int64_t at_us = 0;
    std::size_t line = 0;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
};

// A feed of `last` messages over two lines: 5 % loss, random delays and packing, each from its own seed. A
// line keeps its packets in order.
std::vector<Arriving> two_lossy_lines(unsigned seed, std::uint64_t last) {
    std::vector<Arriving> all;
    for (const std::size_t line : {line_a, line_b}) {
        std::mt19937 random(seed * 2 + static_cast<unsigned>(line));
        const std::uint64_t packing = line == line_a ? 12 : 7;
        std::int64_t arrived_us = 0;
        for (std::uint64_t first = 1; first <= last;) {
            const std::uint64_t end = std::min(last + 1, first + 1 + random() % packing);
            const std::int64_t sent_us = static_cast<std::int64_t>(end) * 100;
            if (random() % 20 != 0 || end == last + 1) {
                const auto delay_us = static_cast<std::int64_t>(200 + random() % 1'800);
                arrived_us = std::max(arrived_us, sent_us + delay_us);
                all.push_back({arrived_us, line, first, end});
            }
            first = end;
        }
    }
    std::stable_sort(all.begin(), all.end(), [](const Arriving& one, const Arriving& other) {
        return std::pair(one.at_us, one.line) < std::pair(other.at_us, other.line);
    });
    return all;
}

TEST(SequencerLines, TwoLinesOfFivePercentLoss_RequestExactlyWhatBothLost) {
    constexpr std::uint64_t last = 5'000;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        Lines lines;
        std::vector<bool> brought[2] = {std::vector<bool>(last + 1), std::vector<bool>(last + 1)};
        std::size_t served = 0;  // requests that were replied to
        for (const Arriving& packet : two_lossy_lines(seed, last)) {
            lines.now_ms = packet.at_us / 1'000;
            lines.on(packet.line, packet.first, packet.end);
            lines.serve(served, 1, last + 1);
            served = lines.requests.size();
            std::fill(brought[packet.line].begin() + static_cast<std::ptrdiff_t>(packet.first),
                      brought[packet.line].begin() + static_cast<std::ptrdiff_t>(packet.end), true);
        }
        for (; !nothing_missing(lines.sequencer); lines.wait(5)) {
            lines.serve(served, 1, last + 1);
            served = lines.requests.size();
        }
        std::vector<std::uint64_t> lost_on_both;
        std::vector<std::uint64_t> requested;
        for (std::uint64_t number = 1; number <= last; ++number) {
            if (!brought[line_a][number] && !brought[line_b][number]) {
                lost_on_both.push_back(number);
            }
        }
        for (const Request& request : lines.requests) {
            for (std::uint64_t number = 0; number < request.count; ++number) {
                requested.push_back(request.first + number);
            }
        }
        std::sort(requested.begin(), requested.end());
        EXPECT_FALSE(lost_on_both.empty()) << seed;
        EXPECT_EQ(requested, lost_on_both) << seed;
        EXPECT_EQ(lines.sequencer.counters.missed, lost_on_both.size()) << seed;
        EXPECT_EQ(lines.out, lines.upto(last)) << seed;
        for (const std::size_t line : {line_a, line_b}) {
            const auto count =
                static_cast<std::uint64_t>(std::count(brought[line].begin(), brought[line].end(), true));
            EXPECT_EQ(missing_on_line(lines.sequencer, line), last - count) << seed;
        }
    }
}

}  // namespace
}  // namespace tessel::receiver
