#pragma once

#include "console/board.h"
#include "console/feed_control.h"
#include "console/query.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Everything that the doors say and read in JSON. The JSON library is used here and nowhere else. Text that
// is no UTF-8 is written with replacement characters.
namespace tessel::console {

// One moment, as /api/state shows it.
struct StateView {
    const Picture* picture = nullptr;
    const ControlPicture* control = nullptr;
    const std::vector<Mark>* marks = nullptr;
    std::string session;
    bool has_relay = false;
    bool read_only = false;
    double uptime_seconds = 0;
};

std::string state_json(const StateView& view, const StateQuery& query);
std::string instrument_json(const Detail& detail);
std::string event_json(const MarketEvent& event);
std::string counters_json();
std::string reply_json(const CommandAnswer& answer);
std::string error_json(std::string_view text);
std::string skipped_json(std::uint64_t count);

struct CommandRequest {
    std::string command;
    CommandTarget target = CommandTarget::feed;
};

// Reads {"command": "halt AAPL"}, with "to": "relay" for the relay's control channel. False with the reason
// in `error` for anything else: another member, a command without a letter, with a control character, or
// longer than the feed takes.
bool parse_command(std::string_view body, CommandRequest& request, std::string& error);

}  // namespace tessel::console
