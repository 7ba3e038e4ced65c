#include "relay/impairments.h"

#include "common/duration.h"
#include "common/nearest_word.h"

#include <charconv>
#include <cmath>

namespace tessel::relay {

namespace {

constexpr std::string_view keys[] = {"drop", "burst", "every", "seq",      "dup",     "reorder", "delay",
                                     "rate", "queue", "bits",  "truncate", "foreign", "dark",    "payload"};
constexpr std::uint64_t queue_packets_max = 1'000'000;
constexpr std::uint64_t reorder_distance_max = 10'000;
// A header of 20 bytes and a message of 29 with its length are the least that a packet can be split into; the
// feed's own packets have 1,500 bytes at most.
constexpr std::uint64_t payload_bytes_least = 200;
constexpr std::uint64_t payload_bytes_most = 65'507;

bool parse_real(std::string_view text, double& value) {
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    return problem == std::errc() && stop == end && std::isfinite(value) && value >= 0;
}

bool parse_chance(std::string_view text, double& chance, std::string& error) {
    double percent = 0;
    if (!text.ends_with('%') || !parse_real(text.substr(0, text.size() - 1), percent) || percent > 100) {
        error = "'" + std::string(text) + "' is no percentage: write 0% to 100%";
        return false;
    }
    chance = percent / 100;
    return true;
}

bool parse_whole(std::string_view text, std::uint64_t least, std::uint64_t most, std::uint64_t& value,
                 std::string& error) {
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    if (problem != std::errc() || stop != end || text.empty() || value < least || value > most) {
        error = "'" + std::string(text) + "' is no whole number from " + std::to_string(least) + " to " +
                std::to_string(most);
        return false;
    }
    return true;
}

// A duration that may have microseconds or nanoseconds, which nobody needs for a whole run: 200us, 1.5ms, 2s.
bool parse_time(std::string_view text, std::int64_t& ns, std::string& error) {
    for (const auto& [unit, factor] : {std::pair<std::string_view, double>{"us", 1e3}, {"ns", 1}}) {
        double value = 0;
        if (text.ends_with(unit) && parse_real(text.substr(0, text.size() - unit.size()), value) &&
            value * factor < static_cast<double>(common::duration_max_ns)) {
            ns = std::llround(value * factor);
            return true;
        }
    }
    return common::parse_duration(text, ns, error);
}

// The two sides of the first separator; false when there is none.
bool split(std::string_view text, std::string_view separator, std::string_view& left,
           std::string_view& right) {
    const std::size_t at = text.find(separator);
    if (at == std::string_view::npos) {
        return false;
    }
    left = text.substr(0, at);
    right = text.substr(at + separator.size());
    return true;
}

bool parse_time_range(std::string_view text, std::int64_t& first, std::int64_t& second, std::string& error) {
    std::string_view left;
    std::string_view right;
    if (!split(text, "..", left, right)) {
        error = "'" + std::string(text) + "' is no range: write T1..T2";
        return false;
    }
    if (!parse_time(left, first, error) || !parse_time(right, second, error)) {
        return false;
    }
    if (second < first) {
        error = "'" + std::string(text) + "' ends before it begins";
        return false;
    }
    return true;
}

bool parse_delay(std::string_view text, Delay& delay, std::string& error) {
    std::string_view left;
    std::string_view right;
    if (text.starts_with("normal:")) {
        delay.kind = DelayKind::normal;
        if (!split(text.substr(7), ":", left, right)) {
            error = "'" + std::string(text) + "': write normal:MEAN:DEVIATION";
            return false;
        }
        return parse_time(left, delay.first_ns, error) && parse_time(right, delay.second_ns, error);
    }
    if (text.starts_with("spike:")) {
        delay.kind = DelayKind::spike;
        if (!split(text.substr(6), ":", left, right)) {
            error = "'" + std::string(text) + "': write spike:P%:T";
            return false;
        }
        return parse_chance(left, delay.chance, error) && parse_time(right, delay.first_ns, error);
    }
    if (text.find("..") != std::string_view::npos) {
        delay.kind = DelayKind::uniform;
        return parse_time_range(text, delay.first_ns, delay.second_ns, error);
    }
    delay.kind = DelayKind::fixed;
    return parse_time(text, delay.first_ns, error);
}

bool set_delay(Impairments& impairments, std::string_view text, bool add, std::string& error) {
    Delay delay;
    if (!parse_delay(text, delay, error)) {
        return false;
    }
    if (!add) {
        impairments.delays.clear();
    }
    if (delay.kind != DelayKind::fixed || delay.first_ns != 0) {
        impairments.delays.push_back(delay);
    }
    return true;
}

bool set_burst(Impairments& impairments, std::string_view text, std::string& error) {
    std::string_view left;
    std::string_view right;
    double begin = 0;
    double end = 0;
    if (text == "0" || text == "0%") {
        impairments.burst_begin = 0;
        return true;
    }
    if (!split(text, ":", left, right)) {
        error = "'" + std::string(text) + "': write P%:R%, the chances to go bad and to recover";
        return false;
    }
    if (!parse_chance(left, begin, error) || !parse_chance(right, end, error)) {
        return false;
    }
    impairments.burst_begin = begin;
    impairments.burst_end = end;
    return true;
}

bool set_reorder(Impairments& impairments, std::string_view text, std::string& error) {
    std::string_view left = text;
    std::string_view right;
    double chance = 0;
    std::uint64_t distance = 1;
    if (split(text, ":", left, right) && !parse_whole(right, 1, reorder_distance_max, distance, error)) {
        return false;
    }
    if (!parse_chance(left, chance, error)) {
        return false;
    }
    impairments.reorder = chance;
    impairments.reorder_distance = static_cast<unsigned>(distance);
    return true;
}

bool set_sequences(Impairments& impairments, std::string_view text, std::string& error) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    std::string_view rest = text == "0" ? std::string_view() : text;
    while (!rest.empty()) {
        std::string_view range = rest;
        std::string_view later;
        split(rest, "+", range, later);
        rest = later;
        std::string_view left = range;
        std::string_view right = range;
        split(range, "-", left, right);
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        if (!parse_whole(left, 1, UINT64_MAX, first, error) ||
            !parse_whole(right, 1, UINT64_MAX, last, error)) {
            return false;
        }
        if (last < first) {
            error = "'" + std::string(range) + "' ends before it begins: write A-B";
            return false;
        }
        ranges.emplace_back(first, last);
    }
    impairments.sequences = std::move(ranges);
    return true;
}

bool set_rate(Impairments& impairments, std::string_view text, std::string& error) {
    double value = 0;
    double factor = 0;
    std::string_view number = text;
    for (const auto& [unit, bits] :
         {std::pair<std::string_view, double>{"Mbit", 1e6}, {"kbit", 1e3}, {"Gbit", 1e9}}) {
        if (text.ends_with(unit)) {
            number = text.substr(0, text.size() - unit.size());
            factor = bits;
        }
    }
    if (text == "0") {
        factor = 1;
    }
    if (factor == 0 || !parse_real(number, value) || value * factor > 1e12 ||
        (value > 0 && value * factor < 1)) {
        error = "'" + std::string(text) + "' is no rate: write 100Mbit, 512kbit or 2.5Gbit";
        return false;
    }
    impairments.rate_bits = value * factor;
    return true;
}

bool set_dark(Impairments& impairments, std::string_view text, std::string& error) {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    if (text != "0" && !parse_time_range(text, begin, end, error)) {
        return false;
    }
    impairments.dark_begin_ns = begin;
    impairments.dark_end_ns = end;
    return true;
}

bool set_chance(double& chance, std::string_view text, std::string& error) {
    double value = 0;
    if (!parse_chance(text, value, error)) {
        return false;
    }
    chance = value;
    return true;
}

bool set_value(Impairments& impairments, std::string_view key, std::string_view value, bool add_delay,
               std::string& error) {
    std::uint64_t number = 0;
    if (key == "drop") {
        return set_chance(impairments.drop, value, error);
    }
    if (key == "burst") {
        return set_burst(impairments, value, error);
    }
    if (key == "every") {
        return parse_whole(value, 0, UINT64_MAX, number, error) && (impairments.every = number, true);
    }
    if (key == "seq") {
        return set_sequences(impairments, value, error);
    }
    if (key == "dup") {
        return set_chance(impairments.duplicate, value, error);
    }
    if (key == "reorder") {
        return set_reorder(impairments, value, error);
    }
    if (key == "delay") {
        return set_delay(impairments, value, add_delay, error);
    }
    if (key == "rate") {
        return set_rate(impairments, value, error);
    }
    if (key == "queue") {
        return parse_whole(value, 1, queue_packets_max, number, error) &&
               (impairments.queue_packets = number, true);
    }
    if (key == "bits") {
        return set_chance(impairments.flip_bit, value, error);
    }
    if (key == "truncate") {
        return set_chance(impairments.truncate, value, error);
    }
    if (key == "foreign") {
        return set_chance(impairments.foreign, value, error);
    }
    if (key == "dark") {
        return set_dark(impairments, value, error);
    }
    if (key == "payload") {
        if (value != "0" && !parse_whole(value, payload_bytes_least, payload_bytes_most, number, error)) {
            return false;
        }
        impairments.payload_bytes_max = number;
        return true;
    }
    error = "unknown key '" + std::string(key) + "'" + common::did_you_mean(key, keys);
    return false;
}

}  // namespace

bool set_impairment(Impairments& impairments, std::string_view assignment, bool add_delay,
                    std::string& error) {
    std::string_view key;
    std::string_view value;
    if (!split(assignment, "=", key, value)) {
        error = "'" + std::string(assignment) + "' is not KEY=VALUE";
        return false;
    }
    if (!set_value(impairments, key, value, add_delay, error)) {
        if (!error.starts_with("unknown key")) {
            error = std::string(key) + ": " + error;
        }
        return false;
    }
    return true;
}

bool is_clean(const Impairments& impairments) {
    return impairments.drop == 0 && impairments.burst_begin == 0 && impairments.every == 0 &&
           impairments.sequences.empty() && impairments.duplicate == 0 && impairments.reorder == 0 &&
           impairments.delays.empty() && impairments.rate_bits == 0 && impairments.flip_bit == 0 &&
           impairments.truncate == 0 && impairments.foreign == 0 &&
           impairments.dark_end_ns <= impairments.dark_begin_ns && impairments.payload_bytes_max == 0;
}

}  // namespace tessel::relay
