#include "console/board.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <utility>

namespace tessel::console {

namespace {

constexpr std::chrono::seconds detail_wait_max{5};

std::shared_ptr<const Picture> empty_picture() {
    Picture empty;
    empty.rows = std::make_shared<const std::vector<Row>>();
    return std::make_shared<const Picture>(std::move(empty));
}

}  // namespace

Board::Board() : wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), picture(empty_picture()) {}

Board::~Board() {
    if (wake_fd >= 0) {
        close(wake_fd);
    }
}

void publish_picture(Board& board, std::shared_ptr<const Picture> picture) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    // The old one, which may be large, is freed after the lock.
    board.picture.swap(picture);
}

void add_events(Board& board, std::vector<MarketEvent>& events) {
    if (events.empty()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(board.mutex);
    for (MarketEvent& event : events) {
        if (board.events.size() == events_kept_max) {
            board.events.pop_front();
        }
        board.events.push_back(std::move(event));
        ++board.events_end;
    }
    events.clear();
}

std::vector<std::shared_ptr<DetailRequest>> take_requests(Board& board) {
    eventfd_t count = 0;
    if (eventfd_read(board.wake_fd, &count) != 0) {
        return {};
    }
    const std::lock_guard<std::mutex> lock(board.mutex);
    return std::exchange(board.requests, {});
}

void finish_requests(Board& board, const std::vector<std::shared_ptr<DetailRequest>>& requests) {
    {
        const std::lock_guard<std::mutex> lock(board.mutex);
        for (const auto& request : requests) {
            request->answered = true;
        }
    }
    board.changed.notify_all();
}

std::shared_ptr<const Picture> latest_picture(Board& board) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    return board.picture;
}

ControlPicture latest_control(Board& board) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    return board.control;
}

std::vector<Mark> latest_marks(Board& board) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    return {board.marks.begin(), board.marks.end()};
}

void add_mark(Board& board, Mark mark) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    if (board.marks.size() == marks_kept_max) {
        board.marks.pop_front();
    }
    board.marks.push_back(std::move(mark));
}

std::uint64_t events_end(Board& board) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    return board.events_end;
}

std::vector<MarketEvent> events_since(Board& board, std::uint64_t& next, std::size_t most,
                                      std::uint64_t& missed) {
    const std::lock_guard<std::mutex> lock(board.mutex);
    const std::uint64_t kept_from = board.events_end - board.events.size();
    const std::uint64_t wanted_from = board.events_end - std::min<std::uint64_t>(board.events_end, most);
    const std::uint64_t from = std::max({next, kept_from, wanted_from});
    missed = next < from ? from - next : 0;
    next = board.events_end;
    return {board.events.begin() + static_cast<std::ptrdiff_t>(std::min(from, next) - kept_from),
            board.events.end()};
}

std::shared_ptr<const DetailRequest> request_detail(Board& board, const std::string& symbol) {
    const auto request = std::make_shared<DetailRequest>();
    request->symbol = symbol;
    std::unique_lock<std::mutex> lock(board.mutex);
    board.requests.push_back(request);
    eventfd_write(board.wake_fd, 1);
    board.changed.wait_for(lock, detail_wait_max, [&] { return request->answered || board.stopping; });
    return request->answered ? request : nullptr;
}

void stop_board(Board& board) {
    {
        const std::lock_guard<std::mutex> lock(board.mutex);
        board.stopping = true;
    }
    board.changed.notify_all();
}

}  // namespace tessel::console
