#include "ctl/script_player.h"

#include "common/duration.h"
#include "ctl/json_text.h"
#include "ctl/stats.h"

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <limits>
#include <vector>

namespace tessel::ctl {

namespace {

using common::Timeline;
using common::TimelineCommand;

constexpr std::uint64_t ns_per_ms = 1'000'000;
constexpr std::size_t unanswered_max = 64;  // what a socket buffer of the usual size certainly holds
constexpr int status_err = 1;
constexpr int status_nobody = 3;

struct Sent {
    const TimelineCommand* command = nullptr;  // null: a look at the statistics
    std::uint64_t sent_ns = 0;
};

struct Player {
    const Timeline& timeline;
    ControlClient& client;
    const ScriptOptions& options;
    common::TimelineCursor cursor;
    std::deque<const TimelineCommand*> due;  // not yet sent
    std::deque<Sent> unanswered;
    std::vector<const TimelineCommand*> scratch;
    std::uint64_t next_sequence = 0;
    std::uint64_t next_look_ns = 0;
    bool looking = false;  // a look is on its way
    bool stopped = false;  // the feed has answered "stop"
    bool refused = false;
};

std::uint64_t now_ns() {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

void print_played(const Player& player, const Sent& sent, const std::string& reply) {
    const double at = static_cast<double>(sent.sent_ns) / 1e9;
    if (player.options.json) {
        std::printf("%s\n", played_json(sent.command->line, at, sent.command->text, reply).c_str());
    } else {
        std::printf("+%.3fs line %u: %s: %s\n", at, sent.command->line, sent.command->text.c_str(),
                    reply.c_str());
    }
    std::fflush(stdout);
}

void take_reply(Player& player, const std::string& reply) {
    if (player.unanswered.empty()) {
        return;  // nothing was asked
    }
    const Sent sent = player.unanswered.front();
    player.unanswered.pop_front();
    if (sent.command == nullptr) {
        FeedCounters stats;
        player.looking = false;
        if (parse_stats(reply, stats)) {
            player.next_sequence = stats.next_sequence;
        }
        return;
    }
    print_played(player, sent, reply);
    player.refused = player.refused || reply.starts_with("err");
    player.stopped = player.stopped || reply == "ok stopping";
}

bool send_due(Player& player, std::uint64_t elapsed_ns, std::string& error) {
    common::take_due(player.timeline, player.cursor, elapsed_ns, player.next_sequence, player.scratch);
    player.due.insert(player.due.end(), player.scratch.begin(), player.scratch.end());
    player.scratch.clear();
    while (!player.due.empty() && player.unanswered.size() < unanswered_max) {
        if (!send_command(player.client, player.due.front()->text, error)) {
            return false;
        }
        player.unanswered.push_back({player.due.front(), elapsed_ns});
        player.due.pop_front();
    }
    return true;
}

bool waits_for_number(const Player& player) {
    return player.cursor.by_sequence < player.timeline.by_sequence.size();
}

bool look_when_due(Player& player, std::uint64_t elapsed_ns, std::string& error) {
    if (!waits_for_number(player) || player.looking || elapsed_ns < player.next_look_ns) {
        return true;
    }
    player.looking = true;
    player.next_look_ns = elapsed_ns + static_cast<std::uint64_t>(player.options.poll_ms) * ns_per_ms;
    player.unanswered.push_back({nullptr, elapsed_ns});
    return send_command(player.client, "stats", error);
}

// Milliseconds to wait for a reply before something is due: rounded down, and none within the last one, so
// that a moment is never overslept.
int wait_ms(const Player& player, std::uint64_t elapsed_ns) {
    std::uint64_t until_ns = common::next_timed_ns(player.timeline, player.cursor);
    if (waits_for_number(player) && !player.looking) {
        until_ns = std::min(until_ns, player.next_look_ns);
    }
    if (!player.unanswered.empty()) {
        const auto timeout_ns = static_cast<std::uint64_t>(player.client.timeout_ms) * ns_per_ms;
        until_ns = std::min(until_ns, player.unanswered.front().sent_ns + timeout_ns + ns_per_ms);
    }
    if (until_ns <= elapsed_ns) {
        return 0;
    }
    constexpr std::uint64_t longest_ms = 1000;
    return static_cast<int>(std::min((until_ns - elapsed_ns) / ns_per_ms, longest_ms));
}

bool is_over(const Player& player) {
    return player.due.empty() && player.unanswered.empty() &&
           common::all_played(player.timeline, player.cursor);
}

// On a terminal, how far the script is; elsewhere nothing.
void show_progress(const Player& player, std::uint64_t elapsed_ns, std::uint64_t& shown_ns) {
    constexpr std::uint64_t period_ns = 200 * ns_per_ms;
    if (isatty(STDERR_FILENO) == 0 || elapsed_ns < shown_ns + period_ns) {
        return;
    }
    shown_ns = elapsed_ns;
    std::fprintf(stderr, "\r+%.1fs  %zu of %zu commands\x1b[K\r", static_cast<double>(elapsed_ns) / 1e9,
                 player.cursor.timed + player.cursor.by_sequence,
                 player.timeline.timed.size() + player.timeline.by_sequence.size());
}

int finish(const Player& player) {
    const std::size_t left = player.timeline.timed.size() - player.cursor.timed +
                             player.timeline.by_sequence.size() - player.cursor.by_sequence +
                             player.due.size() + player.unanswered.size();
    if (player.stopped && left != 0) {
        std::fprintf(stderr, "tesselctl: %s: the feed has been stopped; %zu commands were not done\n",
                     player.timeline.name.c_str(), left);
        return status_err;
    }
    return player.refused ? status_err : 0;
}

}  // namespace

int play_script(const Timeline& timeline, ControlClient& client, const ScriptOptions& options) {
    Player player{timeline, client, options, {}, {}, {}, {}};
    const std::uint64_t start_ns = now_ns();
    const auto timeout_ns = static_cast<std::uint64_t>(client.timeout_ms) * ns_per_ms;
    std::uint64_t shown_ns = 0;
    std::string error;
    while (!is_over(player) && !player.stopped) {
        const std::uint64_t elapsed_ns = now_ns() - start_ns;
        if (!send_due(player, elapsed_ns, error) || !look_when_due(player, elapsed_ns, error)) {
            std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
            return status_nobody;
        }
        show_progress(player, elapsed_ns, shown_ns);
        std::string reply;
        bool gone = false;
        if (receive_reply(client, wait_ms(player, now_ns() - start_ns), reply, gone)) {
            take_reply(player, reply);
        } else if (gone || (!player.unanswered.empty() &&
                            now_ns() - start_ns > player.unanswered.front().sent_ns + timeout_ns)) {
            std::fprintf(stderr, "tesselctl: %s\n", nobody_text(client).c_str());
            return status_nobody;
        }
    }
    return finish(player);
}

}  // namespace tessel::ctl
