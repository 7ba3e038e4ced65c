#include "common/timeline.h"

#include "common/control_commands.h"
#include "common/duration.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace tessel::common {

namespace {

constexpr std::string_view blanks = " \t\r\v\f";
constexpr std::size_t quoted_bytes_max = 40;
constexpr std::uint64_t sequence_max = std::uint64_t{1} << 62;
constexpr std::uint64_t rounds_max = timeline_actions_max;

enum class Clock { time, sequence };

// A line of the file, or a loop with the nodes that it holds.
struct Node {
    bool is_loop = false;
    std::uint64_t moment = 0;  // from the beginning of the round that it is in
    std::uint32_t command = 0;
    std::uint64_t rounds = 0;
    std::uint64_t period = 0;
    std::vector<Node> inner;
};

struct OpenLoop {
    Node node;
    Clock clock = Clock::time;
    std::uint32_t line = 0;
};

struct Parser {
    Timeline& timeline;
    std::vector<OpenLoop> open;  // the file itself is [0], which has no separate clock
    std::vector<std::pair<Clock, Node>> top;
    std::uint32_t line = 0;
};

std::string in_quotes(std::string_view text) {
    return "'" + std::string(text.substr(0, quoted_bytes_max)) + "'";
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Without a comment and without white space at both ends.
std::string_view meaningful(std::string_view line) {
    return trim(line.substr(0, line.find('#')));
}

std::string_view take_word(std::string_view& text) {
    text = trim(text);
    const std::string_view word = text.substr(0, text.find_first_of(blanks));
    text.remove_prefix(word.size());
    text = trim(text);
    return word;
}

bool parse_whole(std::string_view text, std::uint64_t most, std::uint64_t& value) {
    value = 0;
    for (const char letter : text) {
        if (letter < '0' || letter > '9' || value > most / 10) {
            return false;
        }
        value = value * 10 + static_cast<std::uint64_t>(letter - '0');
    }
    return !text.empty() && value <= most;
}

bool parse_time(std::string_view text, std::uint64_t& ns, std::string& error) {
    std::int64_t read = 0;
    if (!parse_duration(text, read, error)) {
        return false;
    }
    ns = static_cast<std::uint64_t>(read);
    return true;
}

// Takes the moment off the front: "+T", "at seq N", or nothing before "loop", which is the beginning.
bool take_moment(std::string_view& text, Clock around, Clock& clock, std::uint64_t& moment,
                 std::string& error) {
    std::string_view rest = text;
    const std::string_view word = take_word(rest);
    if (word == "loop") {
        clock = around;
        moment = 0;
        return true;
    }
    text = rest;
    if (word.starts_with('+')) {
        clock = Clock::time;
        return parse_time(word.substr(1), moment, error);
    }
    if (word != "at" || take_word(text) != "seq") {
        error = "a line begins with +TIME or 'at seq N', not " + in_quotes(word);
        return false;
    }
    const std::string_view number = take_word(text);
    clock = Clock::sequence;
    if (!parse_whole(number, sequence_max, moment)) {
        error = in_quotes(number) + " is no sequence number: write 'at seq N COMMAND' with a whole number";
        return false;
    }
    return true;
}

// Reads what follows the word "loop": "COUNT every PERIOD".
bool read_loop(std::string_view text, OpenLoop& loop, std::string& error) {
    const std::string_view count = take_word(text);
    const std::string_view every = take_word(text);
    const std::string_view period = take_word(text);
    const char* form = loop.clock == Clock::time ? "'loop 3 every 20s'" : "'at seq 1000 loop 3 every 500'";
    const bool complete = every == "every" && !period.empty() && text.empty();
    if (!complete || !parse_whole(count, rounds_max, loop.node.rounds)) {
        error = std::string("a loop has a count of at most ") + std::to_string(rounds_max) +
                " and a period: write it as " + form;
        return false;
    }
    if (loop.clock == Clock::time) {
        return parse_time(period, loop.node.period, error);
    }
    if (!parse_whole(period, sequence_max, loop.node.period)) {
        error = in_quotes(period) + " is no number of messages: write the loop as " + form;
        return false;
    }
    return true;
}

void put(Parser& parser, Clock clock, Node node) {
    if (parser.open.empty()) {
        parser.top.emplace_back(clock, std::move(node));
    } else {
        parser.open.back().node.inner.push_back(std::move(node));
    }
}

bool end_loop(Parser& parser, std::string_view rest, std::string& error) {
    if (!rest.empty() || parser.open.empty()) {
        error =
            rest.empty() ? "'end' without a loop" : "'end' is followed by nothing, not " + in_quotes(rest);
        return false;
    }
    OpenLoop loop = std::move(parser.open.back());
    parser.open.pop_back();
    if (loop.node.inner.empty() || loop.node.rounds == 0) {
        return true;  // nothing to do, which must not take long however often
    }
    put(parser, loop.clock, std::move(loop.node));
    return true;
}

bool read_line(Parser& parser, std::string_view text, std::string& error) {
    std::string_view rest = text;
    if (take_word(rest) == "end") {
        return end_loop(parser, rest, error);
    }
    const Clock around = parser.open.empty() ? Clock::time : parser.open.back().clock;
    Clock clock = around;
    std::uint64_t moment = 0;
    if (!take_moment(text, around, clock, moment, error)) {
        return false;
    }
    if (!parser.open.empty() && clock != around) {
        error = around == Clock::time
                    ? "a loop by time holds lines by time: begin this one with +TIME"
                    : "a loop by number holds lines by number: begin this one with 'at seq N'";
        return false;
    }
    rest = text;
    if (take_word(rest) == "loop") {
        if (parser.open.size() == timeline_depth_max) {
            error = "loops nest " + std::to_string(timeline_depth_max) + " deep at most";
            return false;
        }
        OpenLoop loop;
        loop.clock = clock;
        loop.line = parser.line;
        loop.node.is_loop = true;
        loop.node.moment = moment;
        if (!read_loop(rest, loop, error)) {
            return false;
        }
        parser.open.push_back(std::move(loop));
        return true;
    }
    if (!check_control_command(text, error)) {
        return false;
    }
    Node node;
    node.moment = moment;
    node.command = static_cast<std::uint32_t>(parser.timeline.commands.size());
    parser.timeline.commands.push_back({std::string(text), parser.line});
    put(parser, clock, std::move(node));
    return true;
}

// Actions of a node with its loops written out, held to one more than the maximum.
std::uint64_t count_actions(const Node& node) {
    if (!node.is_loop) {
        return 1;
    }
    std::uint64_t inner = 0;
    for (const Node& each : node.inner) {
        inner = std::min<std::uint64_t>(inner + count_actions(each), timeline_actions_max + 1);
    }
    return std::min<std::uint64_t>(inner * node.rounds, timeline_actions_max + 1);
}

// Writes the node out, with `begin` the beginning of the round around it. False when a moment is out of
// range.
bool write_out(const Node& node, std::uint64_t begin, std::uint32_t& order,
               std::vector<TimelineAction>& actions) {
    const std::uint64_t moment = begin + node.moment;
    if (!node.is_loop) {
        actions.push_back({moment, order, node.command});
        ++order;
        return moment <= sequence_max;
    }
    for (std::uint64_t round = 0; round < node.rounds; ++round) {
        if (node.period != 0 && round > sequence_max / node.period) {
            return false;
        }
        const std::uint64_t round_begin = moment + round * node.period;
        if (round_begin > sequence_max) {
            return false;
        }
        for (const Node& each : node.inner) {
            if (!write_out(each, round_begin, order, actions)) {
                return false;
            }
        }
    }
    return true;
}

bool write_out_all(const Parser& parser, Timeline& timeline, std::string& error) {
    std::uint64_t count = 0;
    for (const auto& [clock, node] : parser.top) {
        count += count_actions(node);
        if (count > timeline_actions_max) {
            error = "the loops come to more than " + std::to_string(timeline_actions_max) + " commands";
            return false;
        }
    }
    std::uint32_t order = 0;
    for (const auto& [clock, node] : parser.top) {
        if (!write_out(node, 0, order, clock == Clock::time ? timeline.timed : timeline.by_sequence)) {
            error = "a loop goes on beyond 146 years or 2^62 messages";
            return false;
        }
    }
    const auto by_moment = [](const TimelineAction& left, const TimelineAction& right) {
        return left.moment < right.moment;
    };
    std::stable_sort(timeline.timed.begin(), timeline.timed.end(), by_moment);
    std::stable_sort(timeline.by_sequence.begin(), timeline.by_sequence.end(), by_moment);
    return true;
}

}  // namespace

bool parse_timeline(std::string_view text, const std::string& name, Timeline& timeline, std::string& error) {
    timeline = {};
    timeline.name = name;
    Parser parser{timeline, {}, {}, 0};
    std::string fault;
    const auto fail = [&](std::uint32_t line) {
        error = name + (line == 0 ? "" : ":" + std::to_string(line)) + ": " + fault;
        return false;
    };
    if (text.size() > timeline_bytes_max) {
        fault = "larger than " + std::to_string(timeline_bytes_max >> 20) + " MiB";
        return fail(0);
    }
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = meaningful(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++parser.line;
        if (!line.empty() && !read_line(parser, line, fault)) {
            return fail(parser.line);
        }
    }
    if (!parser.open.empty()) {
        fault = "this loop has no 'end'";
        return fail(parser.open.back().line);
    }
    return write_out_all(parser, timeline, fault) || fail(0);
}

bool read_timeline(const std::string& path, Timeline& timeline, std::string& error) {
    const bool standard_input = path == "-";
    std::FILE* const file = standard_input ? stdin : std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::string text;
    char block[65536];
    std::size_t length = 0;
    while (text.size() <= timeline_bytes_max && (length = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, length);
    }
    const int fault = std::ferror(file) != 0 ? errno : 0;
    if (!standard_input) {
        std::fclose(file);
    }
    if (fault != 0) {
        error = path + ": " + std::strerror(fault);
        return false;
    }
    return parse_timeline(text, standard_input ? "standard input" : path, timeline, error);
}

void take_due(const Timeline& timeline, TimelineCursor& cursor, std::uint64_t now_ns,
              std::uint64_t next_sequence, std::vector<const TimelineCommand*>& due) {
    while (true) {
        const bool timed =
            cursor.timed < timeline.timed.size() && timeline.timed[cursor.timed].moment <= now_ns;
        const bool numbered = cursor.by_sequence < timeline.by_sequence.size() &&
                              timeline.by_sequence[cursor.by_sequence].moment <= next_sequence;
        if (!timed && !numbered) {
            return;
        }
        const bool take_timed = timed && (!numbered || timeline.timed[cursor.timed].order <
                                                           timeline.by_sequence[cursor.by_sequence].order);
        const TimelineAction& action =
            take_timed ? timeline.timed[cursor.timed++] : timeline.by_sequence[cursor.by_sequence++];
        due.push_back(&timeline.commands[action.command]);
    }
}

std::uint64_t next_timed_ns(const Timeline& timeline, const TimelineCursor& cursor) {
    return cursor.timed < timeline.timed.size() ? timeline.timed[cursor.timed].moment
                                                : std::numeric_limits<std::uint64_t>::max();
}

bool all_played(const Timeline& timeline, const TimelineCursor& cursor) {
    return cursor.timed == timeline.timed.size() && cursor.by_sequence == timeline.by_sequence.size();
}

std::string unplayed_text(const Timeline& timeline, const TimelineCursor& cursor) {
    if (all_played(timeline, cursor)) {
        return "";
    }
    std::size_t count = 0;
    const TimelineAction* first = nullptr;
    const auto add = [&count, &first](const std::vector<TimelineAction>& actions, std::size_t begin) {
        for (std::size_t at = begin; at < actions.size(); ++at) {
            ++count;
            first = first == nullptr || actions[at].order < first->order ? &actions[at] : first;
        }
    };
    add(timeline.timed, cursor.timed);
    add(timeline.by_sequence, cursor.by_sequence);
    return std::to_string(count) + (count == 1 ? " command of " : " commands of ") + timeline.name +
           (count == 1 ? " was" : " were") + " not reached; the first is in line " +
           std::to_string(timeline.commands[first->command].line);
}

}  // namespace tessel::common
