#include "ctl/json_text.h"

#include <nlohmann/json.hpp>

namespace tessel::ctl {

namespace {

using Json = nlohmann::ordered_json;

// Bytes that are no UTF-8 are replaced: a symbol may hold anything.
std::string text_of(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void put_counters(Json& json, const FeedCounters& stats) {
    for (const auto& [name, value] : stats.counters) {
        json[name] = value;
    }
}

void put_faults(Json& json, const FeedCounters& stats) {
    json["faults"] = {{"sent", stats.sent},
                      {"dropped", stats.dropped},
                      {"duplicated", stats.duplicated},
                      {"reordered", stats.reordered}};
}

}  // namespace

std::string command_json(const RunConfig& config, const std::string& program) {
    Json json;
    json["program"] = program;
    json["arguments"] = feed_arguments(config);
    json["scenario"] = config.has_scenario ? Json(scenario_text(config)) : Json(nullptr);
    return text_of(json);
}

std::string reply_json(std::string_view command, std::string_view reply) {
    Json json;
    json["command"] = command;
    json["ok"] = !reply.starts_with("err");
    json["reply"] = reply;
    return text_of(json);
}

std::string stats_json(const FeedCounters& stats) {
    Json json;
    put_counters(json, stats);
    json["next_seq"] = stats.next_sequence;
    put_faults(json, stats);
    return text_of(json);
}

std::string played_json(std::uint32_t line, double at_seconds, std::string_view command,
                        std::string_view reply) {
    Json json;
    json["line"] = line;
    json["at"] = at_seconds;
    json["command"] = command;
    json["ok"] = !reply.starts_with("err");
    json["reply"] = reply;
    return text_of(json);
}

std::string account_json(std::int64_t sent, std::int64_t damaged, std::int64_t received, std::int64_t lost) {
    return text_of(Json{{"sent", sent}, {"damaged", damaged}, {"received", received}, {"lost", lost}});
}

std::string checks_json(const std::vector<Check>& checks) {
    Json list = Json::array();
    for (const Check& check : checks) {
        list.push_back(
            {{"name", check.name}, {"result", check.result}, {"text", check.text}, {"fix", check.fix}});
    }
    return text_of(Json{{"checks", list}});
}

std::string processes_json(const std::vector<std::pair<std::string, std::int64_t>>& processes) {
    Json list = Json::array();
    for (const auto& [name, pid] : processes) {
        list.push_back({{"name", name}, {"pid", pid}});
    }
    return text_of(Json{{"channels", list}});
}

std::string stopped_json(const std::vector<std::pair<std::string, std::string>>& results) {
    Json list = Json::array();
    for (const auto& [name, result] : results) {
        list.push_back({{"name", name}, {"result", result}});
    }
    return text_of(Json{{"channels", list}});
}

std::string channels_status_json(const std::vector<ChannelStatus>& all) {
    Json list = Json::array();
    for (const ChannelStatus& status : all) {
        Json json;
        json["name"] = status.name;
        json["up"] = status.up;
        json["next_seq"] = status.up ? Json(status.counters.next_sequence) : Json(nullptr);
        json["rate"] = status.up ? Json(status.rate) : Json(nullptr);
        json["dropped"] = status.up ? Json(status.counters.dropped) : Json(nullptr);
        json["gaps"] = status.up && status.gaps >= 0 ? Json(status.gaps) : Json(nullptr);
        list.push_back(json);
    }
    return text_of(Json{{"channels", list}});
}

std::string channels_stats_json(const FeedCounters& total, const std::vector<ChannelStatus>& all) {
    Json sum = Json::object();
    put_counters(sum, total);
    put_faults(sum, total);
    Json list = Json::array();
    for (const ChannelStatus& status : all) {
        if (status.up) {
            Json json;
            json["name"] = status.name;
            put_counters(json, status.counters);
            json["next_seq"] = status.counters.next_sequence;
            put_faults(json, status.counters);
            list.push_back(json);
        }
    }
    return text_of(Json{{"total", sum}, {"channels", list}});
}

bool read_json_number(std::string_view text, const char* member, std::int64_t& value) {
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains(member) || !json[member].is_number_integer()) {
        return false;
    }
    value = json[member].get<std::int64_t>();
    return true;
}

}  // namespace tessel::ctl
