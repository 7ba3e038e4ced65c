#include "common/timeline.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tessel::common {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

Timeline parsed(std::string_view text) {
    Timeline timeline;
    std::string error;
    EXPECT_TRUE(parse_timeline(text, "t", timeline, error)) << error;
    return timeline;
}

std::string refusal(std::string_view text) {
    Timeline timeline;
    std::string error;
    EXPECT_FALSE(parse_timeline(text, "day.txt", timeline, error)) << text;
    return error;
}

// What a pass at that moment does.
std::vector<std::string> due(const Timeline& timeline, TimelineCursor& cursor, std::uint64_t now_ns,
                             std::uint64_t next_sequence = 0) {
    std::vector<const TimelineCommand*> commands;
    take_due(timeline, cursor, now_ns, next_sequence, commands);
    std::vector<std::string> texts;
    for (const TimelineCommand* command : commands) {
        texts.push_back(command->text);
    }
    return texts;
}

// Every line by time with its moment in milliseconds.
std::vector<std::string> timed(const Timeline& timeline) {
    std::vector<std::string> lines;
    for (const TimelineAction& action : timeline.timed) {
        lines.push_back(std::to_string(action.moment / 1'000'000) + " " +
                        timeline.commands[action.command].text);
    }
    return lines;
}

std::vector<std::string> numbered(const Timeline& timeline) {
    std::vector<std::string> lines;
    for (const TimelineAction& action : timeline.by_sequence) {
        lines.push_back(std::to_string(action.moment) + " " + timeline.commands[action.command].text);
    }
    return lines;
}

using Lines = std::vector<std::string>;

TEST(Timeline, LinesByTime_CountFromTheStart) {
    const Timeline timeline =
        parsed("# a day\n\n+2.5s halt AAPL\n+1 pause # wait\n  +1m0.5s\tresume AAPL\r\n");
    EXPECT_EQ(timed(timeline), (Lines{"1000 pause", "2500 halt AAPL", "60500 resume AAPL"}));
    EXPECT_EQ(timeline.commands[0].line, 3U);
}

TEST(Timeline, LinesOfOneMoment_KeepTheOrderOfTheFile) {
    const Timeline timeline = parsed("+1s drop 1\n+0s pause\n+1s dup 2\n+1000ms reorder 3\n");
    TimelineCursor cursor;
    EXPECT_EQ(due(timeline, cursor, 0), Lines{"pause"});
    EXPECT_EQ(due(timeline, cursor, second - 1), Lines{});
    EXPECT_EQ(next_timed_ns(timeline, cursor), second);
    EXPECT_EQ(due(timeline, cursor, second), (Lines{"drop 1", "dup 2", "reorder 3"}));
    EXPECT_TRUE(all_played(timeline, cursor));
    EXPECT_EQ(next_timed_ns(timeline, cursor), UINT64_MAX);
}

TEST(Timeline, LineByNumber_WaitsForTheNextNumber) {
    const Timeline timeline = parsed("at seq 10000 drop 3\nat seq 500 pause\n");
    TimelineCursor cursor;
    EXPECT_EQ(due(timeline, cursor, 100 * second, 499), Lines{});
    EXPECT_EQ(due(timeline, cursor, 100 * second, 500), Lines{"pause"});
    EXPECT_EQ(due(timeline, cursor, 100 * second, 9999), Lines{});
    EXPECT_FALSE(all_played(timeline, cursor));
    EXPECT_EQ(due(timeline, cursor, 100 * second, 12000), Lines{"drop 3"});
    EXPECT_TRUE(all_played(timeline, cursor));
}

TEST(Timeline, RunThatEndsEarly_SaysWhatItDidNotReach) {
    const Timeline timeline = parsed("+1s pause\nat seq 500 drop 1\n+9s resume\n");
    TimelineCursor cursor;
    EXPECT_EQ(unplayed_text(timeline, cursor),
              "3 commands of " + timeline.name + " were not reached; the first is in line 1");
    EXPECT_EQ(due(timeline, cursor, second, 499), Lines{"pause"});
    EXPECT_EQ(due(timeline, cursor, 9 * second, 499), Lines{"resume"});
    EXPECT_EQ(unplayed_text(timeline, cursor),
              "1 command of " + timeline.name + " was not reached; the first is in line 2");
    EXPECT_EQ(due(timeline, cursor, 9 * second, 500), Lines{"drop 1"});
    EXPECT_EQ(unplayed_text(timeline, cursor), "");
}

TEST(Timeline, TimeAndNumberInOnePass_KeepTheOrderOfTheFile) {
    const Timeline timeline = parsed("at seq 10 drop 1\n+1s dup 1\nat seq 10 drop 2\n");
    TimelineCursor cursor;
    EXPECT_EQ(due(timeline, cursor, second, 10), (Lines{"drop 1", "dup 1", "drop 2"}));
}

TEST(Timeline, Loop_IsItsLinesWrittenOutRoundByRound) {
    EXPECT_EQ(timed(parsed("+1m loop 3 every 20s\n+0s halt A\n+5s resume A\nend\n+1m pause\n")),
              (Lines{"60000 halt A", "60000 pause", "65000 resume A", "80000 halt A", "85000 resume A",
                     "100000 halt A", "105000 resume A"}));
    EXPECT_EQ(timed(parsed("loop 2 every 1s\n+0s drop\n+1s dup\nend\n")),
              (Lines{"0 drop", "1000 dup", "1000 drop", "2000 dup"}));
    EXPECT_EQ(numbered(parsed("at seq 1000 loop 3 every 500\nat seq 0 drop\nat seq 10 dup\nend\n")),
              (Lines{"1000 drop", "1010 dup", "1500 drop", "1510 dup", "2000 drop", "2010 dup"}));
    EXPECT_EQ(timed(parsed("loop 0 every 1s\n+0s drop\nend\nloop 1000000 every 1s\nend\n")), Lines{});
}

TEST(Timeline, NestedLoops_AddTheirMoments) {
    EXPECT_EQ(timed(parsed("loop 2 every 10s\n+1s loop 2 every 2s\n+0s drop\nend\n+9s dup\nend\n")),
              (Lines{"1000 drop", "3000 drop", "9000 dup", "11000 drop", "13000 drop", "19000 dup"}));
}

TEST(Timeline, Faults_NameFileAndLine) {
    EXPECT_EQ(refusal("+1s pause\n+2s frobnicate\n"), "day.txt:2: unknown command 'frobnicate'");
    EXPECT_EQ(refusal("+1s hlat AAPL"), "day.txt:1: unknown command 'hlat'; did you mean 'halt'?");
    EXPECT_EQ(refusal("+1s"), "day.txt:1: unknown command ''");
    EXPECT_EQ(refusal("halt AAPL"), "day.txt:1: a line begins with +TIME or 'at seq N', not 'halt'");
    EXPECT_EQ(refusal("at time 3 halt AAPL"), "day.txt:1: a line begins with +TIME or 'at seq N', not 'at'");
    EXPECT_EQ(refusal("at seq x halt AAPL"),
              "day.txt:1: 'x' is no sequence number: write 'at seq N COMMAND' with a whole number");
    EXPECT_EQ(
        refusal("\n\n+1x halt AAPL"),
        "day.txt:3: '1x' is no duration: write a sum such as 6h30m, 1.5s or 250ms, or a number of seconds");
    EXPECT_EQ(refusal("+-1s halt AAPL").substr(0, 31), "day.txt:1: '-1s' is no duration");
}

TEST(Timeline, FaultsOfLoops_NameTheLine) {
    EXPECT_EQ(refusal("end"), "day.txt:1: 'end' without a loop");
    EXPECT_EQ(refusal("+1s pause\nloop 3 every 1s\n+1s pause\n"), "day.txt:2: this loop has no 'end'");
    EXPECT_EQ(
        refusal("loop 3"),
        "day.txt:1: a loop has a count of at most 1000000 and a period: write it as 'loop 3 every 20s'");
    EXPECT_EQ(refusal("loop 3 every 1s\nat seq 3 drop\nend"),
              "day.txt:2: a loop by time holds lines by time: begin this one with +TIME");
    EXPECT_EQ(refusal("at seq 3 loop 3 every 5\n+1s drop\nend"),
              "day.txt:2: a loop by number holds lines by number: begin this one with 'at seq N'");
    EXPECT_EQ(refusal("loop 2 every 1s\n+0 drop\nend now"),
              "day.txt:3: 'end' is followed by nothing, not 'now'");
}

TEST(Timeline, LoopsBeyondTheLimit_AreRefusedWithoutBeingWrittenOut) {
    EXPECT_EQ(timed(parsed("loop 1000000 every 1ms\n+0 drop\nend\n")).size(), timeline_actions_max);
    std::string nested;
    for (std::size_t depth = 0; depth < timeline_depth_max; ++depth) {
        nested += "loop 1000000 every 1ms\n";
    }
    std::string ends;
    for (std::size_t depth = 0; depth < timeline_depth_max; ++depth) {
        ends += "end\n";
    }
    EXPECT_EQ(refusal(nested + "+0 drop\n" + ends), "day.txt: the loops come to more than 1000000 commands");
    EXPECT_EQ(timed(parsed(nested + ends)), Lines{});
    EXPECT_EQ(refusal(nested + "loop 2 every 1s\n"), "day.txt:9: loops nest 8 deep at most");
    EXPECT_EQ(refusal("loop 1000 every 80000h\n+0 drop\nend"),
              "day.txt: a loop goes on beyond 146 years or 2^62 messages");
}

TEST(Timeline, File_IsReadAndNamed) {
    const std::string path = ::testing::TempDir() + "timeline_test.txt";
    std::ofstream(path) << "+1s pause";
    Timeline timeline;
    std::string error;
    EXPECT_TRUE(read_timeline(path, timeline, error)) << error;
    EXPECT_EQ(timed(timeline), Lines{"1000 pause"});
    std::filesystem::remove(path);
    EXPECT_FALSE(read_timeline(path, timeline, error));
    EXPECT_EQ(error, path + ": No such file or directory");
}

}  // namespace
}  // namespace tessel::common
