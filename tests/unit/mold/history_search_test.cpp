#include "mold/history_search.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace tessel::receiver {
namespace {

constexpr std::int64_t settle_ms = 5;
constexpr std::int64_t timeout_ms = 250;
constexpr unsigned retries = 5;

// Runs a search against a service that `answers` a number in a round, and returns its last step.
SearchStep run_search(HistorySearch& search, std::uint64_t first, std::uint64_t end,
                      const std::function<bool(std::uint64_t number, unsigned round)>& answers) {
    std::int64_t now_ms = 1000;
    begin_search(search, first, end, now_ms);
    for (;;) {
        const std::vector<Probe> probes = search.probes;
        for (const Probe& probe : probes) {
            if (answers(probe.number, search.rounds)) {
                note_reply(search, probe.number, probe.number + 1, now_ms + 1);
            }
        }
        EXPECT_EQ(step_search(search, now_ms + 1, settle_ms, timeout_ms, retries), SearchStep::wait);
        now_ms = search_due_ms(search, settle_ms, timeout_ms);
        const SearchStep step = step_search(search, now_ms, settle_ms, timeout_ms, retries);
        if (step != SearchStep::probe) {
            EXPECT_FALSE(search.active);
            return step;
        }
    }
}

TEST(HistorySearch, FirstRound_SpreadsItsProbesOverTheWholeRange) {
    HistorySearch search;
    begin_search(search, 1, 10'000, 0);
    EXPECT_EQ(search.probes.size(), probes_a_round);
    EXPECT_EQ(search.probes.front().number, 1u);
    EXPECT_EQ(search.probes.back().number, 9'999u);
}

TEST(HistorySearch, Reply_AnswersTheProbesThatItHolds) {
    HistorySearch search;
    begin_search(search, 1, 5, 0);
    note_reply(search, 2, 4, 0);
    ASSERT_EQ(search.probes.size(), 4u);
    EXPECT_FALSE(search.probes[0].answered);
    EXPECT_TRUE(search.probes[1].answered);
    EXPECT_TRUE(search.probes[2].answered);
    EXPECT_FALSE(search.probes[3].answered);
}

TEST(HistorySearch, OldestAnsweredIsOneAboveTheFirst_TheFirstIsProbedToo) {
    HistorySearch search;
    begin_search(search, 10, 1000, 0);
    search.probes = {{11, true}, {999, true}};
    EXPECT_EQ(step_search(search, 1000, 5, 250, 3), SearchStep::probe);
    EXPECT_EQ(search.probes.front().number, 10u);
}

TEST(HistorySearch, EveryBeginningOfASmallRange_IsFound) {
    for (std::uint64_t end = 3; end < 40; ++end) {
        for (std::uint64_t oldest = 1; oldest < end; ++oldest) {
            HistorySearch search;
            EXPECT_EQ(
                run_search(search, 1, end, [&](std::uint64_t number, unsigned) { return number >= oldest; }),
                SearchStep::found);
            EXPECT_EQ(search.candidate, oldest - 1) << end;
        }
    }
}

TEST(HistorySearch, RangeUpToTheLargestNumber_TakesFewRounds) {
    HistorySearch search;
    const std::uint64_t oldest = UINT64_MAX - 400'000;
    EXPECT_EQ(
        run_search(search, 1, UINT64_MAX, [&](std::uint64_t number, unsigned) { return number >= oldest; }),
        SearchStep::found);
    EXPECT_EQ(search.candidate, oldest - 1);
    EXPECT_LT(search.rounds, 30u);
}

TEST(HistorySearch, LostReplies_DoNotMakeNumbersGone) {
    HistorySearch search;
    // In the first two rounds nothing below 900 gets a reply, although everything is there.
    EXPECT_EQ(run_search(search, 1, 1000,
                         [](std::uint64_t number, unsigned round) { return round > 2 || number >= 900; }),
              SearchStep::found);
    EXPECT_EQ(search.candidate, 0u);
}

TEST(HistorySearch, BeginningThatRises_IsFollowed) {
    HistorySearch search;
    EXPECT_EQ(run_search(search, 1, 1'000'000,
                         [](std::uint64_t number, unsigned round) { return number >= 1000 + 500 * round; }),
              SearchStep::found);
    EXPECT_GE(search.candidate, 1000u);
    EXPECT_LE(search.candidate, 1000 + 500 * (search_rounds_max + 1));
}

TEST(HistorySearch, NoReplyAtAll_EndsAfterTheRetries) {
    HistorySearch search;
    unsigned rounds = 0;
    EXPECT_EQ(run_search(search, 1, 1000,
                         [&](std::uint64_t number, unsigned) {
                             rounds += number == 1 ? 1 : 0;
                             return false;
                         }),
              SearchStep::no_replies);
    EXPECT_EQ(rounds, retries + 1);
}

}  // namespace
}  // namespace tessel::receiver
