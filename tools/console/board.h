#pragma once

#include "console/picture.h"
#include "ctl/stats.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Where the receiver's thread, the control channel's thread and the server's threads meet. The receiver waits
// for nobody: every lock is held for a copy of pointers or of a few records.
namespace tessel::console {

constexpr std::size_t events_kept_max = 2000;
constexpr std::size_t marks_kept_max = 100;

// Something that the page marks on its charts.
struct Mark {
    std::uint64_t time_ns = 0;  // since the epoch
    std::string kind;           // "command" or "fault"
    std::string text;
};

// What the control channel says.
struct ControlPicture {
    bool up = false;             // the last question was answered
    ctl::FeedCounters counters;  // as answered last; empty before the first answer
    bool relay_up = false;
    std::vector<std::string> relay_lines;  // the relay's own answer to "stats"
};

// A question about one instrument, which the receiver answers between two passes.
struct DetailRequest {
    std::string symbol;
    bool answered = false;
    bool found = false;
    Detail detail;
};

struct Board {
    Board();
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    std::mutex mutex;
    std::condition_variable changed;  // a request was answered, or everything ends
    bool stopping = false;
    int wake_fd = -1;  // an eventfd: readable while requests wait

    std::shared_ptr<const Picture> picture;  // never null
    std::deque<MarketEvent> events;          // the latest, oldest first
    std::uint64_t events_end = 0;            // the number of the next event; the first is 0
    std::deque<Mark> marks;                  // oldest first
    std::vector<std::shared_ptr<DetailRequest>> requests;
    ControlPicture control;
};

// The receiver's side.
void publish_picture(Board& board, std::shared_ptr<const Picture> picture);
void add_events(Board& board, std::vector<MarketEvent>& events);  // empties the list
std::vector<std::shared_ptr<DetailRequest>> take_requests(Board& board);
void finish_requests(Board& board, const std::vector<std::shared_ptr<DetailRequest>>& requests);

// The server's side.
std::shared_ptr<const Picture> latest_picture(Board& board);
ControlPicture latest_control(Board& board);
std::vector<Mark> latest_marks(Board& board);
void add_mark(Board& board, Mark mark);
// The number of the event that comes next.
std::uint64_t events_end(Board& board);
// Events from number `next` on, which is moved past them. `missed` is how many of them were no longer there.
std::vector<MarketEvent> events_since(Board& board, std::uint64_t& next, std::size_t most,
                                      std::uint64_t& missed);
// Waits for the receiver. Nothing when it does not answer, which it always does unless everything ends.
std::shared_ptr<const DetailRequest> request_detail(Board& board, const std::string& symbol);

// Ends every wait.
void stop_board(Board& board);

}  // namespace tessel::console
