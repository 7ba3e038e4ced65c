#include "certify/judging.h"

#include "certify/each_line.h"
#include "certify/file_text.h"
#include "certify/left_out.h"
#include "judge/line_reader.h"
#include "judge/report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <set>

namespace tessel::certify {

namespace {

// The line as it is compared: its number, and of its members those that are wanted.
std::string with_members(const judge::Line& line, std::string_view text,
                         const std::vector<std::string>& wanted) {
    std::string out = "{\"seq\":" + std::to_string(line.seq);
    for (std::size_t member = 0; member != judge::member_count; ++member) {
        const std::string_view value = judge::member_text(line, text, member);
        const std::string_view name = judge::member_names[member];
        if (!value.empty() && std::find(wanted.begin(), wanted.end(), name) != wanted.end()) {
            out += fmt::format(",\"{}\":{}", name, value);
        }
    }
    return out + "}";
}

// The first message that was dropped in any run, 0 when none was.
std::uint64_t first_dropped(const JudgeInput& input) {
    std::uint64_t first = 0;
    for (const std::vector<DroppedRange>& run : input.dropped) {
        for (const DroppedRange& range : run) {
            first = first == 0 ? range.first : std::min(first, range.first);
        }
    }
    return first;
}

// The error's line when it is about a line of that file: "FILE:LINE: reason".
bool line_of_error(const std::string& error, const std::string& file, std::uint64_t& line,
                   std::string& reason) {
    if (!error.starts_with(file + ":")) {
        return false;
    }
    const char* const begin = error.data() + file.size() + 1;
    const auto [stop, problem] = std::from_chars(begin, error.data() + error.size(), line);
    if (problem != std::errc() || *stop != ':') {
        return false;
    }
    reason = std::string(stop + 1);
    return true;
}

std::string line_of_file(const std::string& path, std::uint64_t wanted) {
    std::string line;
    std::string error;
    const auto take = [&](std::string_view text, std::uint64_t number) {
        line = number == wanted ? text : std::string_view();
        return number < wanted;
    };
    return each_line({path}, take, error) ? line : "";
}

// What the judge said about a file that it could not judge, as the reason of a case.
std::string reason_of_error(const std::string& error, const std::string& out_path) {
    std::uint64_t line = 0;
    std::string reason;
    if (!line_of_error(error, out_path, line, reason)) {
        return error;
    }
    if (!nlohmann::json::accept(line_of_file(out_path, line))) {
        return fmt::format("line {} is not JSON", line);
    }
    return fmt::format("line {}:{}", line, reason);
}

bool finish(std::ofstream& out, const std::string& path, std::string& error) {
    out.close();
    if (out.fail()) {
        error = path + ": cannot be written";
    }
    return !out.fail();
}

void add_part(std::string& text, const std::string& part) {
    text += (text.empty() ? "" : ", ") + part;
}

std::string lines_text(std::uint64_t count) {
    return count == 1 ? "1 line" : fmt::format("{} lines", judge::grouped(count));
}

std::string reason_of_differences(const judge::Result& result) {
    const judge::Totals& totals = result.totals;
    std::string reason;
    if (totals.missing != 0) {
        add_part(reason, lines_text(totals.missing) + " missing");
    }
    if (totals.mismatched != 0) {
        std::string members;
        for (std::size_t member = 0; member != judge::member_count; ++member) {
            if (result.members[member].mismatched != 0) {
                add_part(members, std::string(judge::member_names[member]));
            }
        }
        add_part(reason, fmt::format("{} mismatched ({})", lines_text(totals.mismatched), members));
    }
    if (totals.unexpected != 0) {
        add_part(reason, lines_text(totals.unexpected) + " unexpected");
    }
    std::uint64_t first = 0;
    for (const judge::Difference& difference : result.differences) {
        first = first == 0 ? difference.seq : std::min(first, difference.seq);
    }
    return reason + (first == 0 ? "" : fmt::format("; the first is seq {}", first));
}

std::string reason_of_result(const judge::Result& result, const Expectation& expect) {
    switch (judge::verdict(result)) {
        case judge::Verdict::nothing_compared:
            return "nothing was compared: no line has a member of a truth line";
        case judge::Verdict::differs: return reason_of_differences(result);
        case judge::Verdict::agrees: break;
    }
    for (const std::string& wanted : expect.members) {
        for (std::size_t member = 0; member != judge::member_count; ++member) {
            if (judge::member_names[member] == wanted && result.members[member].compared == 0) {
                return "member '" + wanted + "' was compared in no line";
            }
        }
    }
    return "";
}

// For an OUTPUT that agrees: what it had to give and does not; "" when there is nothing.
std::string reason_of_left_out(const JudgeInput& input, const Judgment& judgment) {
    const judge::Result& result = judgment.result;
    if (result.runs.empty() || result.runs.size() != result.truth_runs) {
        return "";
    }
    const std::uint64_t first = input.expect.from_first ? result.runs.front().output.lowest : 0;
    const std::uint64_t lost_from =
        input.expect.mismatched == Mismatched::after_loss ? first_dropped(input) : 0;
    std::string error;
    const LeftOut left_out = first_left_out(judgment.judged_truth, result, input.expect.members, first,
                                            lost_from == 0 ? UINT64_MAX : lost_from, error);
    if (left_out.member.empty()) {
        return error;
    }
    return fmt::format("member '{}' is not in {} whose truth lines have it", left_out.member,
                       lines_text(left_out.lines));
}

}  // namespace

bool was_dropped(const std::vector<DroppedRange>& ranges, std::uint64_t seq) {
    return std::any_of(ranges.begin(), ranges.end(), [seq](const DroppedRange& range) {
        return seq >= range.first && seq - range.first < range.count;
    });
}

bool filter_output(const JudgeInput& input, const std::string& to, std::string& error) {
    std::ofstream out(to, std::ios::binary);
    const std::uint64_t lost_from =
        input.expect.mismatched == Mismatched::after_loss ? first_dropped(input) : 0;
    std::uint64_t written = 0;
    std::string reason;
    const auto take = [&](std::string_view text, std::uint64_t number) {
        for (; written + 1 < number; ++written) {
            out << '\n';  // a blank line
        }
        ++written;
        judge::Line line;
        const bool read = judge::read_line(text, line, reason) && !line.mark;
        if (read && lost_from != 0 && line.seq >= lost_from) {
            out << with_members(line, text, {}) << '\n';
        } else if (read && !input.expect.compare.empty()) {
            out << with_members(line, text, input.expect.compare) << '\n';
        } else {
            out << text << '\n';
        }
        return true;
    };
    return each_line({input.out_path}, take, error) && finish(out, to, error);
}

bool filter_truth(const JudgeInput& input, const std::string& to, std::string& error) {
    std::set<std::uint64_t> given;  // numbers of dropped messages that OUTPUT has all the same
    std::string reason;
    const auto note = [&](std::string_view text, std::uint64_t /*number*/) {
        judge::Line line;
        const bool read = judge::read_line(text, line, reason);
        const bool dropped =
            read && std::any_of(input.dropped.begin(), input.dropped.end(),
                                [&](const auto& ranges) { return was_dropped(ranges, line.seq); });
        if (dropped) {
            given.insert(line.seq);
        }
        return true;
    };
    std::ofstream out(to, std::ios::binary);
    std::size_t run = 0;
    std::uint64_t previous = 0;
    const auto take = [&](std::string_view text, std::uint64_t /*number*/) {
        judge::Line line;
        const bool read = judge::read_line(text, line, reason) && !line.mark;
        run += read && line.seq <= previous ? 1 : 0;
        previous = read ? line.seq : previous;
        const bool dropped = read && run < input.dropped.size() && was_dropped(input.dropped[run], line.seq);
        if (!dropped || given.contains(line.seq)) {
            out << text << '\n';
        }
        return true;
    };
    return each_line({input.out_path}, note, error) && each_line({input.truth_path}, take, error) &&
           finish(out, to, error);
}

Judgment judge_output(const JudgeInput& input) {
    Judgment judgment;
    judgment.judged_truth = input.truth_path;
    judgment.judged_out = input.out_path;
    if (regular_file_bytes(input.out_path) == 0) {
        judgment.reason = "no line was written";
        return judgment;
    }
    bool good = true;
    std::string error;
    if (input.expect.mismatched == Mismatched::after_loss || !input.expect.compare.empty()) {
        judgment.judged_out = input.folder + "/judged_out.jsonl";
        good = filter_output(input, judgment.judged_out, error);
    }
    if (good && input.expect.missing == Missing::dropped) {
        judgment.judged_truth = input.folder + "/judged_truth.jsonl";
        good = filter_truth(input, judgment.judged_truth, error);
    }
    judge::Options options;
    options.truth_path = judgment.judged_truth;
    options.output_path = judgment.judged_out;
    options.from_first = input.expect.from_first;
    if (!good || !judge::judge(options, judgment.result, error)) {
        judgment.reason = reason_of_error(error, judgment.judged_out);
        return judgment;
    }
    if (judgment.result.totals.output_lines == 0 && judgment.result.totals.unexpected == 0) {
        judgment.reason = "no line was written";
        return judgment;
    }
    judgment.reason = reason_of_result(judgment.result, input.expect);
    if (judgment.reason.empty()) {
        judgment.reason = reason_of_left_out(input, judgment);
    }
    judgment.good = judgment.reason.empty();
    return judgment;
}

}  // namespace tessel::certify
