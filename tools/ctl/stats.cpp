#include "ctl/stats.h"

#include <charconv>

namespace tessel::ctl {

namespace {

constexpr std::size_t counters_max = 256;

bool parse_number(std::string_view text, std::uint64_t& value) {
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, value);
    return !text.empty() && read.ec == std::errc() && read.ptr == end;
}

std::string_view take_word(std::string_view& text) {
    const std::size_t start = std::min(text.find_first_not_of(" \n"), text.size());
    text.remove_prefix(start);
    const std::string_view word = text.substr(0, text.find_first_of(" \n"));
    text.remove_prefix(word.size());
    return word;
}

// "sent 22": the word, then the number.
bool take_fault(std::string_view& text, std::string_view word, std::uint64_t& value) {
    return take_word(text) == word && parse_number(take_word(text), value);
}

}  // namespace

bool parse_stats(std::string_view reply, FeedCounters& stats) {
    stats = {};
    if (take_word(reply) != "ok") {
        return false;
    }
    bool has_sequence = false;
    std::string_view word = take_word(reply);
    for (; word.find('=') != std::string_view::npos; word = take_word(reply)) {
        const std::size_t equals = word.find('=');
        std::uint64_t value = 0;
        if (!parse_number(word.substr(equals + 1), value) || stats.counters.size() == counters_max) {
            return false;
        }
        if (word.substr(0, equals) == "next_seq") {
            stats.next_sequence = value;
            has_sequence = true;
        } else {
            stats.counters.emplace_back(word.substr(0, equals), value);
        }
    }
    return has_sequence && word == "tessel" && take_word(reply) == "faults:" &&
           take_fault(reply, "sent", stats.sent) && take_fault(reply, "dropped", stats.dropped) &&
           take_fault(reply, "duplicated", stats.duplicated) &&
           take_fault(reply, "reordered", stats.reordered);
}

std::uint64_t counter(const FeedCounters& stats, std::string_view name) {
    for (const auto& [each, value] : stats.counters) {
        if (each == name) {
            return value;
        }
    }
    return 0;
}

}  // namespace tessel::ctl
