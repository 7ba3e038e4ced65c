#include "console/api_json.h"

#include "common/control_commands.h"
#include "console/counter_texts.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace tessel::console {

using json = nlohmann::ordered_json;

namespace {

constexpr double millionths = 1e6;
constexpr double ns_per_s = 1e9;

double dollars(std::int64_t price) {
    return static_cast<double>(price) / millionths;
}

// Whole shares as a whole number.
json shares(std::uint64_t size) {
    constexpr std::uint64_t one = 1'000'000;
    return size % one == 0 ? json(size / one) : json(static_cast<double>(size) / millionths);
}

double seconds(std::uint64_t ns) {
    return static_cast<double>(ns) / ns_per_s;
}

std::string letter(char value) {
    return std::string(1, value);
}

std::string text_of(const json& document) {
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

json row_json(const Row& row) {
    return {{"symbol", row.symbol},
            {"status", letter(row.status)},
            {"bid", dollars(row.bid)},
            {"bid_size", row.bid_size},
            {"ask", dollars(row.ask)},
            {"ask_size", row.ask_size},
            {"last", dollars(row.last)},
            {"volume", shares(row.volume)},
            {"band",
             row.has_band ? json::array({dollars(row.band_lower), dollars(row.band_upper)}) : json(nullptr)}};
}

json latency_json(const LatencyPicture& latency) {
    if (latency.total == 0) {
        return nullptr;
    }
    return {{"count", latency.total},           {"p50", seconds(latency.p50_ns)},
            {"p90", seconds(latency.p90_ns)},   {"p99", seconds(latency.p99_ns)},
            {"p999", seconds(latency.p999_ns)}, {"max", seconds(latency.max_ns)}};
}

json latencies_json(const Picture& picture) {
    const auto stage = [&picture](LatencyStage each) {
        return latency_json(picture.latency[static_cast<std::size_t>(each)]);
    };
    json whole = stage(LatencyStage::sip_to_taken);
    if (!whole.is_null()) {
        whole["sip_to_kernel"] = stage(LatencyStage::sip_to_kernel);
        whole["kernel_to_taken"] = stage(LatencyStage::kernel_to_taken);
    }
    return whole;
}

json feed_counters_json(const ctl::FeedCounters& counters) {
    json all = json::object();
    for (const CounterText& each : counter_texts()) {
        all[std::string(each.name)] = ctl::counter(counters, each.name);
    }
    return all;
}

json receiver_json(const ReceiverPicture& receiver) {
    return {{"messages", receiver.messages},
            {"packets", receiver.packets},
            {"gaps", receiver.gaps},
            {"recovered", receiver.recovered},
            {"lost", receiver.lost},
            {"requests", receiver.requests},
            {"duplicates", receiver.duplicates},
            {"reordered", receiver.reordered},
            {"kernel_drops", receiver.kernel_drops},
            {"undecoded", receiver.undecoded},
            {"ignored", receiver.ignored}};
}

json marks_json(const std::vector<Mark>& marks) {
    json all = json::array();
    for (const Mark& mark : marks) {
        all.push_back({{"time", seconds(mark.time_ns)}, {"kind", mark.kind}, {"text", mark.text}});
    }
    return all;
}

const char* event_name(EventKind kind) {
    switch (kind) {
        case EventKind::halt: return "halt";
        case EventKind::resume: return "resume";
        case EventKind::pause: return "pause";
        case EventKind::band: return "band";
        case EventKind::mwcb: return "mwcb";
        case EventKind::wipeout: return "wipeout";
        case EventKind::cancel: return "cancel";
        case EventKind::correction: return "correction";
    }
    return "";
}

const char* kind_name(TradeKind kind) {
    switch (kind) {
        case TradeKind::trade: return "trade";
        case TradeKind::correction: return "correction";
        case TradeKind::as_of: return "as_of";
    }
    return "";
}

const char* state_name(TradeState state) {
    switch (state) {
        case TradeState::live: return "live";
        case TradeState::canceled: return "canceled";
        case TradeState::error: return "error";
        case TradeState::corrected: return "corrected";
    }
    return "";
}

// C0, DEL, and in UTF-8 C1.
bool has_control_character(std::string_view text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x20 || byte == 0x7f) {
            return true;
        }
        if (byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string state_json(const StateView& view, const StateQuery& query) {
    const Picture& picture = *view.picture;
    const ControlPicture& control = *view.control;
    const Selection selection = select_rows(*picture.rows, query);
    json document = {
        {"feed",
         {{"up", picture.up},
          {"session", view.session},
          {"next_seq", picture.next_sequence},
          {"runs", picture.runs}}},
        {"control", {{"up", control.up}, {"read_only", view.read_only}}},
        {"counters", feed_counters_json(control.counters)},
        {"faults",
         {{"sent", control.counters.sent},
          {"dropped", control.counters.dropped},
          {"duplicated", control.counters.duplicated},
          {"reordered", control.counters.reordered}}},
        {"receiver", receiver_json(picture.receiver)},
        {"rates", {{"messages", picture.messages_a_second}, {"packets", picture.packets_a_second}}},
        {"latency", latencies_json(picture)},
        {"uptime", view.uptime_seconds},
        {"marks", marks_json(*view.marks)},
    };
    if (view.has_relay) {
        document["relay"] = {{"up", control.relay_up}, {"lines", control.relay_lines}};
    } else {
        document["relay"] = nullptr;
    }
    document["total"] = selection.total;
    json instruments = json::array();
    for (const std::size_t at : selection.rows) {
        instruments.push_back(row_json((*picture.rows)[at]));
    }
    document["instruments"] = std::move(instruments);
    return text_of(document);
}

std::string instrument_json(const Detail& detail) {
    json document = row_json(detail.row);
    json quotes = json::array();
    for (const CenterRow& quote : detail.quotes) {
        quotes.push_back({{"center", letter(quote.center)},
                          {"bid", dollars(quote.bid)},
                          {"bid_size", quote.bid_size},
                          {"ask", dollars(quote.ask)},
                          {"ask_size", quote.ask_size},
                          {"condition", letter(quote.condition)}});
    }
    json trades = json::array();
    for (const TapeTrade& trade : detail.trades) {
        trades.push_back({{"seq", trade.sequence},
                          {"price", dollars(trade.price)},
                          {"size", shares(trade.size)},
                          {"center", letter(trade.center)},
                          {"conditions", std::string(trade.conditions.begin(), trade.conditions.end())},
                          {"kind", kind_name(trade.kind)},
                          {"state", state_name(trade.state)}});
    }
    json halts = json::array();
    for (const HaltRecord& halt : detail.halts) {
        halts.push_back({{"seq", halt.sequence}, {"action", letter(halt.action)}, {"reason", halt.reason}});
    }
    document["quotes"] = std::move(quotes);
    document["trades"] = std::move(trades);
    document["halts"] = std::move(halts);
    return text_of(document);
}

std::string event_json(const MarketEvent& event) {
    json document = {{"kind", event_name(event.kind)},
                     {"symbol", event.symbol},
                     {"seq", event.sequence},
                     {"time", seconds(event.sip_ns)}};
    if (event.action != ' ') {
        document["action"] = letter(event.action);
        document["reason"] = event.reason;
    }
    if (event.center != ' ') {
        document["center"] = letter(event.center);
    }
    if (event.level != ' ') {
        document["level"] = letter(event.level);
    }
    return text_of(document);
}

std::string counters_json() {
    json document = json::object();
    for (const CounterText& each : counter_texts()) {
        document[std::string(each.name)] = each.text;
    }
    return text_of(document);
}

std::string reply_json(const CommandAnswer& answer) {
    return text_of({{"ok", answer.ok}, {"reply", answer.reply}});
}

std::string error_json(std::string_view text) {
    return text_of({{"error", text}});
}

std::string skipped_json(std::uint64_t count) {
    return text_of({{"count", count}});
}

bool parse_command(std::string_view body, CommandRequest& request, std::string& error) {
    constexpr const char* form = R"(send {"command": "halt AAPL"})";
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) {
        error = std::string("the body is no JSON object: ") + form;
        return false;
    }
    for (const auto& [name, value] : document.items()) {
        if (name == "command" && value.is_string()) {
            request.command = value.get<std::string>();
        } else if (name == "to" && value.is_string() && (value == "feed" || value == "relay")) {
            request.target = value == "relay" ? CommandTarget::relay : CommandTarget::feed;
        } else {
            error = std::string("a member is not as expected: ") + form;
            return false;
        }
    }
    if (has_control_character(request.command)) {
        error = "a command has no control characters";
        return false;
    }
    if (request.command.find_first_not_of(' ') == std::string::npos) {
        error = std::string("there is no command: ") + form;
        return false;
    }
    if (request.command.size() > common::control_command_bytes_max) {
        error = "a command has at most " + std::to_string(common::control_command_bytes_max) + " bytes";
        return false;
    }
    return true;
}

}  // namespace tessel::console
