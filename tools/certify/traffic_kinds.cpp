#include "certify/traffic_kinds.h"

#include "common/nearest_word.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <charconv>
#include <span>

namespace tessel::certify {

namespace {

constexpr std::size_t quoted_bytes_max = 40;
constexpr std::uint64_t number_max = 1'000'000'000;

// A value that a kind has: a number, or a text that is one of `words` (or any two characters when there are
// none).
struct Value {
    std::string_view name;
    bool is_number = true;
    std::uint64_t least = 1;
    std::uint64_t usual = 0;  // without which the value must be given: 0 where `least` is above 0
    std::string_view words;   // in blanks; the first one is the default
};

struct Kind {
    std::string_view name;
    TrafficKind kind;
    bool between;
    std::array<Value, 2> values;
};

constexpr Value none{};
constexpr Value every{"every", true, 1, 1, ""};
constexpr Value times{"times", true, 1, 1, ""};
constexpr Value letters_from{"from", false, 0, 0, ""};
constexpr Value letters_to{"to", false, 0, 0, ""};

constexpr std::array<Kind, 21> kinds = {{
    {"foreign_session",
     TrafficKind::foreign_session,
     false,
     {every, Value{"change", false, 0, 0, " all last "}}},
    {"malformed",
     TrafficKind::malformed,
     false,
     {every, Value{"how", false, 0, 0, " cut count length header "}}},
    {"empty", TrafficKind::empty, false, {every, none}},
    {"oversize", TrafficKind::oversize, false, {every, none}},
    {"noise", TrafficKind::noise, false, {every, Value{"seed", true, 0, 1, ""}}},
    {"replay", TrafficKind::replay, false, {every, Value{"back", true, 1, 30, ""}}},
    {"late_heartbeat",
     TrafficKind::late_heartbeat,
     false,
     {Value{"after", true, 1, 50, ""}, Value{"back", true, 1, 20, ""}}},
    {"delay", TrafficKind::delay, true, {every, Value{"ms", true, 1, 0, ""}}},
    {"unknown_type", TrafficKind::unknown_type, true, {letters_from, letters_to}},
    {"split", TrafficKind::split, true, {none, none}},
    {"retrans_silent", TrafficKind::retrans_silent, true, {Value{"requests", true, 0, 0, ""}, none}},
    {"retrans_lossy", TrafficKind::retrans_lossy, true, {Value{"every", true, 2, 0, ""}, none}},
    {"retrans_partial", TrafficKind::retrans_partial, true, {Value{"messages", true, 1, 0, ""}, none}},
    {"retrans_slow", TrafficKind::retrans_slow, true, {Value{"ms", true, 1, 0, ""}, none}},
    {"retrans_twice", TrafficKind::retrans_twice, true, {none, none}},
    {"retrans_foreign", TrafficKind::retrans_foreign, true, {none, none}},
    {"snapshot_slow", TrafficKind::snapshot_slow, true, {Value{"bytes_a_second", true, 1, 0, ""}, none}},
    {"snapshot_half", TrafficKind::snapshot_half, true, {Value{"bytes", true, 1, 0, ""}, times}},
    {"snapshot_busy", TrafficKind::snapshot_busy, true, {times, none}},
    {"snapshot_closed", TrafficKind::snapshot_closed, true, {times, none}},
    {"snapshot_pieces", TrafficKind::snapshot_pieces, true, {Value{"bytes", true, 1, 0, ""}, none}},
}};

std::string in_quotes(std::string_view text) {
    return "'" + std::string(text.substr(0, quoted_bytes_max)) + "'";
}

const Kind* find_kind(std::string_view name) {
    const auto* const found =
        std::find_if(kinds.begin(), kinds.end(), [&](const Kind& each) { return each.name == name; });
    return found == kinds.end() ? nullptr : found;
}

std::string_view first_word(std::string_view words) {
    const std::size_t start = words.find_first_not_of(' ');
    return start == std::string_view::npos ? "" : words.substr(start, words.find(' ', start) - start);
}

bool read_number(const Value& value, const std::string& text, std::uint64_t& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, number);
    return problem == std::errc() && stop == end && number >= value.least && number <= number_max;
}

bool read_word(const Value& value, const std::string& text) {
    if (value.words.empty()) {  // the two letters of a category and type
        return text.size() == 2 &&
               std::all_of(text.begin(), text.end(), [](char each) { return each > ' ' && each <= '~'; });
    }
    return !text.empty() && text.find(' ') == std::string::npos &&
           value.words.find(" " + text + " ") != std::string_view::npos;
}

std::string what_is_right(const Value& value) {
    if (value.is_number) {
        return "a whole number, " + std::to_string(value.least) + " to " + std::to_string(number_max);
    }
    if (value.words.empty()) {
        return "the two characters of a category and type, such as \"QM\"";
    }
    return "one of" + std::string(value.words.substr(0, value.words.size() - 1));
}

bool read_value(const Traffic& traffic, const Value& value, TrafficSettings& settings, std::string& error) {
    const std::string name(value.name);
    const auto given = traffic.values.find(name);
    const std::string where = "traffic " + traffic.kind + ": " + name + ": ";
    if (given == traffic.values.end()) {
        if (value.is_number && value.usual < value.least) {
            error = where + "there is none; write " + what_is_right(value);
            return false;
        }
        if (!value.is_number && value.words.empty()) {
            error = where + "there is none; write " + what_is_right(value);
            return false;
        }
        settings.numbers[name] = value.usual;
        settings.texts[name] = first_word(value.words);
        return true;
    }
    const bool good = value.is_number ? read_number(value, given->second, settings.numbers[name])
                                      : read_word(value, given->second);
    if (!good) {
        error = where + in_quotes(given->second) + "; write " + what_is_right(value);
        return false;
    }
    settings.texts[name] = given->second;
    return true;
}

}  // namespace

bool read_traffic_settings(const Traffic& traffic, TrafficSettings& settings, std::string& error) {
    const Kind* const kind = find_kind(traffic.kind);
    if (kind == nullptr) {
        std::vector<std::string_view> names;
        names.reserve(kinds.size());
        for (const Kind& each : kinds) {
            names.push_back(each.name);
        }
        error = "traffic: unknown kind " + in_quotes(traffic.kind) +
                common::did_you_mean(traffic.kind.substr(0, quoted_bytes_max), names);
        return false;
    }
    settings = {};
    settings.kind = kind->kind;
    for (const auto& value : traffic.values) {
        const std::string& name = value.first;
        const bool known = std::any_of(kind->values.begin(), kind->values.end(), [&](const Value& each) {
            return !each.name.empty() && each.name == name;
        });
        if (!known) {
            std::vector<std::string_view> names;
            names.reserve(kind->values.size());
            for (const Value& each : kind->values) {
                names.push_back(each.name);
            }
            error = "traffic " + traffic.kind + ": unknown key " + in_quotes(name) +
                    common::did_you_mean(name.substr(0, quoted_bytes_max), names);
            return false;
        }
    }
    for (const Value& value : kind->values) {
        if (!value.name.empty() && !read_value(traffic, value, settings, error)) {
            return false;
        }
    }
    return true;
}

bool stands_between(TrafficKind kind) {
    for (const Kind& each : kinds) {
        if (each.kind == kind) {
            return each.between;
        }
    }
    return false;
}

std::uint64_t number_of(const TrafficSettings& settings, std::string_view name) {
    const auto found = settings.numbers.find(name);
    assert(found != settings.numbers.end());
    return found->second;
}

const std::string& text_of(const TrafficSettings& settings, std::string_view name) {
    const auto found = settings.texts.find(name);
    assert(found != settings.texts.end());
    return found->second;
}

}  // namespace tessel::certify
