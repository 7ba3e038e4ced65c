#pragma once

#include "console/access.h"
#include "console/board.h"
#include "console/feed_control.h"
#include "console/query.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The doors of the console: what is answered to which request. No socket and no library of HTTP in here.
namespace tessel::console {

constexpr std::size_t body_bytes_max = 4096;
constexpr int streams_max = 16;

// What one console serves.
struct Site {
    AccessRules rules;
    Board* board = nullptr;
    std::string session;
    bool has_relay = false;
    bool read_only = false;
    std::int64_t started_ms = 0;  // steady
    std::function<CommandAnswer(CommandTarget target, const std::string& command)> send_command;
    std::atomic<int> streams{0};  // open now
};

struct Request {
    std::string method;
    std::string path;  // decoded, without the query
    QueryParameters query;
    std::optional<std::string> host;
    std::optional<std::string> origin;
    std::string authorization;
    std::string cookies;
    std::string local_address;  // where the connection arrived
    std::string body;           // of a POST
};

// What a stream of events sends.
struct StreamPlan {
    StateQuery query;
    std::string symbol;            // whose details are sent as well; empty: none
    std::uint64_t next_event = 0;  // of the board's events
};

struct Reply {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // beyond those of common_headers
    // Instead of a body: a stream was counted in site.streams; whoever runs it counts it out.
    std::optional<StreamPlan> stream;
};

// The headers of every reply.
const std::vector<std::pair<std::string, std::string>>& common_headers();

// Looks at everything but the body. The reply when the request ends here, nothing when it may go on to
// `answer`.
std::optional<Reply> refuse(const Site& site, const Request& request);

// Answers a request that was not refused. `board` of the site may be waited for.
Reply answer(Site& site, const Request& request);

// A reply with {"error": ...}.
Reply error_reply(int status, std::string_view text);

// Everything that a stream sends now: one state, the market's events since the last call, and the instrument.
std::string stream_text(Site& site, StreamPlan& plan);

}  // namespace tessel::console
