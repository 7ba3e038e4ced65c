#include "console/doors.h"

#include "base/clock.h"
#include "console/api_json.h"
#include "console/assets.h"
#include "console/metrics.h"

#include <algorithm>

namespace tessel::console {

namespace {

constexpr std::string_view instruments_prefix = "/api/instruments/";
constexpr std::size_t events_a_step_max = 200;  // of the market, in one step of a stream
constexpr std::size_t symbol_bytes_max = 64;

struct ContentType {
    std::string_view suffix;
    const char* type;
};

constexpr ContentType content_types[] = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".txt", "text/plain; charset=utf-8"},
};

enum class Door {
    none,
    page,  // a file of the page
    state,
    instrument,
    events,
    command,
    counters,
    metrics,
    health,
};

const Asset* find_asset(std::string_view path) {
    const std::string_view name =
        path == "/" ? "index.html" : path.substr(std::min<std::size_t>(1, path.size()));
    for (const Asset& asset : page_assets()) {
        if (asset.name == name) {
            return &asset;
        }
    }
    return nullptr;
}

Door find_door(std::string_view path) {
    struct Row {
        std::string_view path;
        Door door;
    };
    constexpr Row rows[] = {
        {"/api/state", Door::state},       {"/api/events", Door::events}, {"/api/command", Door::command},
        {"/api/counters", Door::counters}, {"/metrics", Door::metrics},   {"/healthz", Door::health},
    };
    for (const Row& row : rows) {
        if (row.path == path) {
            return row.door;
        }
    }
    if (path.starts_with(instruments_prefix) && path.size() > instruments_prefix.size()) {
        return Door::instrument;
    }
    return path.starts_with('/') && find_asset(path) != nullptr ? Door::page : Door::none;
}

bool has_token(const Site& site, const Request& request) {
    const std::string candidates[] = {
        token_of_authorization(request.authorization),
        parameter(request.query, "token", ""),
        token_of_cookies(request.cookies, cookie_name(site.rules)),
    };
    return std::any_of(std::begin(candidates), std::end(candidates), [&site](const std::string& candidate) {
        return same_secret(candidate, site.rules.token);
    });
}

const char* allowed_methods(Door door) {
    switch (door) {
        case Door::command: return "POST";
        case Door::events: return "GET";
        default: return "GET, HEAD";
    }
}

bool is_allowed(Door door, const std::string& method) {
    if (door == Door::command) {
        return method == "POST";
    }
    return method == "GET" || (method == "HEAD" && door != Door::events);
}

Reply page_reply(const Site& site, const Request& request) {
    const Asset* const asset = find_asset(request.path);
    Reply reply;
    reply.content_type = "application/octet-stream";
    for (const ContentType& each : content_types) {
        if (asset->name.ends_with(each.suffix)) {
            reply.content_type = each.type;
        }
    }
    reply.body = asset->bytes;
    if (request.path == "/" && same_secret(parameter(request.query, "token", ""), site.rules.token)) {
        reply.headers.emplace_back("Set-Cookie", cookie_name(site.rules) + "=" + site.rules.token +
                                                     "; Path=/; HttpOnly; SameSite=Strict");
    }
    return reply;
}

std::string state_text(Site& site, const StateQuery& query) {
    const std::shared_ptr<const Picture> picture = latest_picture(*site.board);
    const ControlPicture control = latest_control(*site.board);
    const std::vector<Mark> marks = latest_marks(*site.board);
    StateView view;
    view.picture = picture.get();
    view.control = &control;
    view.marks = &marks;
    view.session = site.session;
    view.has_relay = site.has_relay;
    view.read_only = site.read_only;
    view.uptime_seconds =
        static_cast<double>(static_cast<std::int64_t>(steady_ms()) - site.started_ms) / 1000.0;
    return state_json(view, query);
}

Reply state_reply(Site& site, const Request& request) {
    StateQuery query;
    std::string error;
    if (!parse_state_query(request.query, query, error)) {
        return error_reply(400, error);
    }
    Reply reply;
    reply.body = state_text(site, query);
    return reply;
}

Reply instrument_reply(Site& site, const Request& request) {
    const std::string symbol = request.path.substr(instruments_prefix.size());
    const std::shared_ptr<const DetailRequest> detail = request_detail(*site.board, symbol);
    if (detail == nullptr) {
        return error_reply(503, "the console is about to end");
    }
    if (!detail->found) {
        return error_reply(404, "no such instrument");
    }
    Reply reply;
    reply.body = instrument_json(detail->detail);
    return reply;
}

Reply command_reply(Site& site, const Request& request) {
    if (site.read_only) {
        return error_reply(403, "the console was started with --read-only");
    }
    CommandRequest command;
    std::string error;
    if (!parse_command(request.body, command, error)) {
        return error_reply(400, error);
    }
    const CommandAnswer answer = site.send_command(command.target, command.command);
    if (!answer.answered) {
        return error_reply(502, answer.reply);
    }
    if (answer.ok && command.command != "stats") {
        Clock clock;
        add_mark(*site.board, {wall_ns(clock), "command", command.command});
    }
    Reply reply;
    reply.body = reply_json(answer);
    return reply;
}

bool open_stream(Site& site) {
    if (site.streams.fetch_add(1) < streams_max) {
        return true;
    }
    site.streams.fetch_sub(1);
    return false;
}

Reply events_reply(Site& site, const Request& request) {
    StreamPlan plan;
    std::uint64_t backlog = 0;
    std::string error;
    if (!parse_state_query(request.query, plan.query, error) ||
        !parse_whole_number("backlog", parameter(request.query, "backlog", "0"), events_a_step_max, backlog,
                            error)) {
        return error_reply(400, error);
    }
    plan.symbol = parameter(request.query, "symbol", "");
    if (plan.symbol.size() > symbol_bytes_max) {
        return error_reply(400, "symbol: it is too long");
    }
    if (!open_stream(site)) {
        Reply reply = error_reply(503, "16 streams are open already: close a page");
        reply.headers.emplace_back("Retry-After", "5");
        return reply;
    }
    plan.next_event = events_end(*site.board);
    plan.next_event -= std::min(plan.next_event, backlog);
    Reply reply;
    reply.content_type = "text/event-stream";
    reply.stream = std::move(plan);
    return reply;
}

void append_event(std::string& text, const char* name, const std::string& data) {
    text += "event: ";
    text += name;
    text += "\ndata: ";
    text += data;
    text += "\n\n";
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& common_headers() {
    static const std::vector<std::pair<std::string, std::string>> headers = {
        {"Content-Security-Policy",
         "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; object-src "
         "'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Cache-Control", "no-store"},
    };
    return headers;
}

Reply error_reply(int status, std::string_view text) {
    Reply reply;
    reply.status = status;
    reply.body = error_json(text);
    return reply;
}

std::optional<Reply> refuse(const Site& site, const Request& request) {
    if (!request.host || !is_own_host(site.rules, *request.host, request.local_address)) {
        return error_reply(403, "the Host is not that of this console");
    }
    if (request.origin && !is_own_origin(site.rules, *request.origin, request.local_address)) {
        return error_reply(403, "the Origin is not that of this console's page");
    }
    const Door door = find_door(request.path);
    const bool open = door == Door::health || (door == Door::metrics && site.rules.metrics_open);
    if (!open && !has_token(site, request)) {
        Reply reply =
            error_reply(401, "the token is missing or wrong: it is in the address that the console prints");
        reply.headers.emplace_back("WWW-Authenticate", "Bearer");
        return reply;
    }
    if (door == Door::none) {
        return error_reply(404, "there is nothing at this path");
    }
    if (!is_allowed(door, request.method)) {
        Reply reply = error_reply(405, std::string("the method is not one of: ") + allowed_methods(door));
        reply.headers.emplace_back("Allow", allowed_methods(door));
        return reply;
    }
    return std::nullopt;
}

Reply answer(Site& site, const Request& request) {
    Reply reply;
    switch (find_door(request.path)) {
        case Door::page: return page_reply(site, request);
        case Door::state: return state_reply(site, request);
        case Door::instrument: return instrument_reply(site, request);
        case Door::events: return events_reply(site, request);
        case Door::command: return command_reply(site, request);
        case Door::counters: reply.body = counters_json(); return reply;
        case Door::metrics:
            reply.content_type = metrics_content_type;
            reply.body = metrics_text(*latest_picture(*site.board), latest_control(*site.board), true);
            return reply;
        case Door::health:
            reply.content_type = "text/plain; charset=utf-8";
            reply.body = "ok\n";
            return reply;
        case Door::none: break;
    }
    return error_reply(404, "there is nothing at this path");
}

std::string stream_text(Site& site, StreamPlan& plan) {
    std::string text;
    std::uint64_t missed = 0;
    const std::vector<MarketEvent> events =
        events_since(*site.board, plan.next_event, events_a_step_max, missed);
    if (missed != 0) {
        append_event(text, "skipped", skipped_json(missed));
    }
    for (const MarketEvent& event : events) {
        append_event(text, "market", event_json(event));
    }
    if (!plan.symbol.empty()) {
        const std::shared_ptr<const DetailRequest> detail = request_detail(*site.board, plan.symbol);
        const bool found = detail != nullptr && detail->found;
        append_event(text, "instrument", found ? instrument_json(detail->detail) : "null");
    }
    append_event(text, "state", state_text(site, plan.query));
    return text;
}

}  // namespace tessel::console
