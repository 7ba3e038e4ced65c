#include "console/feed_control.h"

#include "base/clock.h"
#include "ctl/control_client.h"

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <utility>

namespace tessel::console {

namespace {

constexpr int command_timeout_ms = 5'000;
constexpr int stats_timeout_ms = 1'000;
constexpr std::chrono::seconds poll_interval{1};

// A question with its own socket, so that a reply that comes late is never taken for the next one's.
bool ask_once(const std::string& endpoint, int timeout_ms, std::string_view command, std::string& reply,
              std::string& error) {
    ctl::ControlClient client;
    const bool answered = ctl::open_control(endpoint, timeout_ms, client, error) &&
                          ctl::ask(client, command, reply, error) == ctl::Answer::reply;
    if (client.fd >= 0) {
        close(client.fd);
    }
    return answered;
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

// Everything that one round brings.
ControlPicture poll_once(const ControlSettings& settings, const ControlPicture& before) {
    ControlPicture now = before;
    std::string reply;
    std::string error;
    now.up = ask_once(settings.feed, stats_timeout_ms, "stats", reply, error) &&
             ctl::parse_stats(reply, now.counters);
    if (!now.up) {
        now.counters = before.counters;
    }
    if (!settings.relay.empty()) {
        now.relay_up = ask_once(settings.relay, stats_timeout_ms, "stats", reply, error);
        if (now.relay_up) {
            now.relay_lines = split_lines(reply.starts_with("ok ") ? reply.substr(3) : reply);
        }
    }
    return now;
}

std::string plural(std::uint64_t count, const char* what) {
    return std::to_string(count) + (count == 1 ? " packet " : " packets ") + what;
}

}  // namespace

CommandAnswer send_control_command(const ControlSettings& settings, CommandTarget target,
                                   const std::string& command) {
    CommandAnswer answer;
    std::string error;
    const std::string& endpoint = target == CommandTarget::feed ? settings.feed : settings.relay;
    if (endpoint.empty()) {
        answer.reply = "there is no relay: start tessel-console with --relay HOST:PORT";
        return answer;
    }
    answer.answered = ask_once(endpoint, command_timeout_ms, command, answer.reply, error);
    if (!answer.answered) {
        answer.reply = error;
    }
    answer.ok = answer.answered && (answer.reply == "ok" || answer.reply.starts_with("ok "));
    return answer;
}

std::string fault_text(const ctl::FeedCounters& before, const ctl::FeedCounters& after) {
    if (before.counters.empty() || after.next_sequence < before.next_sequence) {
        return "";
    }
    std::string text;
    const auto add = [&text](std::uint64_t old_count, std::uint64_t new_count, const char* what) {
        if (new_count > old_count) {
            text += (text.empty() ? "" : ", ") + plural(new_count - old_count, what);
        }
    };
    add(before.dropped, after.dropped, "dropped");
    add(before.duplicated, after.duplicated, "sent twice");
    add(before.reordered, after.reordered, "held back");
    return text;
}

void poll_control(const ControlSettings& settings, Board& board) {
    ControlPicture now = poll_once(settings, latest_control(board));
    const std::lock_guard<std::mutex> lock(board.mutex);
    board.control = std::move(now);
}

void run_control_polling(const ControlSettings& settings, Board& board) {
    bool damaging = false;  // the last round brought faults: only the first of a series is marked
    auto next = std::chrono::steady_clock::now() + poll_interval;
    while (true) {
        {
            std::unique_lock<std::mutex> lock(board.mutex);
            if (board.changed.wait_until(lock, next, [&board] { return board.stopping; })) {
                return;
            }
        }
        next = std::max(next + poll_interval, std::chrono::steady_clock::now());
        const ctl::FeedCounters before = latest_control(board).counters;
        poll_control(settings, board);
        const ControlPicture now = latest_control(board);
        const std::string fault = now.up ? fault_text(before, now.counters) : "";
        if (!fault.empty() && !damaging) {
            Clock clock;
            add_mark(board, {wall_ns(clock), "fault", fault});
        }
        damaging = !fault.empty();
    }
}

}  // namespace tessel::console
