#include "console/board.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tessel::console {
namespace {

void add_numbered(Board& board, std::uint64_t first, std::uint64_t end) {
    std::vector<MarketEvent> events;
    for (; first < end; ++first) {
        events.emplace_back().sequence = first;
    }
    add_events(board, events);
    EXPECT_TRUE(events.empty());
}

TEST(ConsoleBoard, EventsSinceANumber_EachOnce) {
    Board board;
    std::uint64_t next = events_end(board);
    std::uint64_t missed = 0;
    EXPECT_TRUE(events_since(board, next, 10, missed).empty());
    add_numbered(board, 0, 3);
    EXPECT_EQ(events_since(board, next, 10, missed).size(), 3u);
    EXPECT_TRUE(events_since(board, next, 10, missed).empty());
    add_numbered(board, 3, 5);
    const std::vector<MarketEvent> more = events_since(board, next, 10, missed);
    ASSERT_EQ(more.size(), 2u);
    EXPECT_EQ(more[0].sequence, 3u);
    EXPECT_EQ(missed, 0u);
}

TEST(ConsoleBoard, MoreEventsThanKeptOrWanted_LatestAndHowManyAreMissed) {
    Board board;
    std::uint64_t next = 0;
    std::uint64_t missed = 0;
    add_numbered(board, 0, events_kept_max + 100);
    EXPECT_EQ(board.events.size(), events_kept_max);
    std::vector<MarketEvent> events = events_since(board, next, 10, missed);
    ASSERT_EQ(events.size(), 10u);
    EXPECT_EQ(events.back().sequence, events_kept_max + 99);
    EXPECT_EQ(missed, events_kept_max + 90);
    next = 0;
    events = events_since(board, next, 100'000, missed);
    EXPECT_EQ(events.size(), events_kept_max);
    EXPECT_EQ(missed, 100u);
}

TEST(ConsoleBoard, ManyMarks_OnlyTheLatestKept) {
    Board board;
    for (std::size_t at = 0; at < marks_kept_max + 5; ++at) {
        add_mark(board, {at, "command", std::to_string(at)});
    }
    const std::vector<Mark> marks = latest_marks(board);
    ASSERT_EQ(marks.size(), marks_kept_max);
    EXPECT_EQ(marks.front().text, "5");
}

TEST(ConsoleBoard, DetailRequested_AnsweredByTheReceiver) {
    Board board;
    std::thread receiver([&board] {
        while (true) {
            const auto requests = take_requests(board);
            for (const auto& request : requests) {
                request->found = request->symbol == "AAPL";
                request->detail.row.symbol = request->symbol;
            }
            finish_requests(board, requests);
            if (!requests.empty() && requests.front()->symbol == "end") {
                return;
            }
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(request_detail(board, "AAPL")->found);
    EXPECT_FALSE(request_detail(board, "MSFT")->found);
    EXPECT_EQ(request_detail(board, "end")->detail.row.symbol, "end");
    receiver.join();
}

TEST(ConsoleBoard, Stopped_NobodyWaits) {
    Board board;
    stop_board(board);
    EXPECT_EQ(request_detail(board, "AAPL"), nullptr);
}

TEST(ConsoleBoard, PicturePublished_ReplacesTheEmptyOne) {
    Board board;
    EXPECT_FALSE(latest_picture(board)->up);
    EXPECT_TRUE(latest_picture(board)->rows->empty());
    Picture picture;
    picture.up = true;
    publish_picture(board, std::make_shared<const Picture>(std::move(picture)));
    EXPECT_TRUE(latest_picture(board)->up);
}

}  // namespace
}  // namespace tessel::console
