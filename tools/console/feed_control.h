#pragma once

#include "console/board.h"

#include <cstdint>
#include <string>

// The control channels of the feed and of a relay, as the console uses them.
namespace tessel::console {

struct ControlSettings {
    std::string feed;   // HOST:PORT
    std::string relay;  // HOST:PORT; empty: there is none
};

enum class CommandTarget : std::uint8_t { feed, relay };

struct CommandAnswer {
    bool answered = false;  // false: the reason is in `reply`
    bool ok = false;        // the reply begins with "ok"
    std::string reply;
};

// Sends one command, once, and waits for its reply, five seconds at most. May be called by several threads.
CommandAnswer send_control_command(const ControlSettings& settings, CommandTarget target,
                                   const std::string& command);

// Asks for the counters once and puts them on the board.
void poll_control(const ControlSettings& settings, Board& board);

// The same every second until the board stops, with a mark when the feed begins to damage its packets.
void run_control_polling(const ControlSettings& settings, Board& board);

// What is new between two answers to "stats", as the text of a mark: "2 packets dropped"; empty when nothing
// is, or when the feed was started again.
std::string fault_text(const ctl::FeedCounters& before, const ctl::FeedCounters& after);

}  // namespace tessel::console
