#include "certify/line_differences.h"

#include "certify/each_line.h"
#include "certify/file_text.h"
#include "judge/line_reader.h"
#include "judge/report.h"
#include "judge/value.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace tessel::certify {

namespace {

struct OutputLine {
    std::uint64_t seq = 0;
    std::string text;
};

// One run of OUTPUT in memory, and where each number stands in it.
struct OutputRun {
    std::vector<OutputLine> lines;
    std::unordered_map<std::uint64_t, std::size_t> places;  // of the first line with that number
    std::uint64_t lowest = UINT64_MAX;
};

std::string shown(std::string_view text) {
    return std::string(text.substr(0, judge::shown_bytes_max));
}

std::string symbol_of(const judge::Line& line, std::string_view text) {
    std::string_view value = judge::member_text(line, text, static_cast<std::size_t>(judge::Member::symbol));
    if (value.size() >= 2 && value.front() == '"') {
        value = value.substr(1, value.size() - 2);
    }
    return std::string(value);
}

OutputRun read_output_run(const std::string& path, const judge::Run& run) {
    OutputRun out;
    std::string error;
    const auto take = [&](std::string_view text, std::uint64_t /*number*/) {
        judge::Line line;
        if (judge::read_line(text, line, error) && !line.mark) {
            out.places.emplace(line.seq, out.lines.size());
            out.lowest = std::min(out.lowest, line.seq);
            out.lines.push_back({line.seq, std::string(text)});
        }
        return true;
    };
    if (run.lines != 0) {
        each_line({path, run.offset, run.line_number, run.end_offset}, take, error);
    }
    return out;
}

// The members that OUTPUT gives and that are not what the truth says.
std::uint32_t differing_members(const judge::Line& truth, std::string_view truth_text,
                                const judge::Line& output, std::string_view output_text) {
    std::uint32_t members = 0;
    for (std::size_t member = 0; member != judge::member_count; ++member) {
        const std::string_view given = judge::member_text(output, output_text, member);
        const std::string_view right = judge::member_text(truth, truth_text, member);
        if (!given.empty() && (right.empty() || !judge::same_value(member, right, given))) {
            members |= 1U << member;
        }
    }
    return members;
}

struct Examiner {
    const Judgment& judgment;
    bool from_first;
    std::vector<LineDifference>& found;
    std::size_t latest = 0;  // place of the latest OUTPUT line so far, past the end once one is missing
};

void add(Examiner& examiner, LineDifference difference) {
    if (examiner.found.size() < differing_lines_max) {
        examiner.found.push_back(std::move(difference));
    }
}

void examine_line(Examiner& examiner, std::size_t run, std::string_view text, const judge::Line& truth,
                  const OutputRun& output) {
    const auto place = output.places.find(truth.seq);
    LineDifference difference;
    difference.run = run;
    difference.seq = truth.seq;
    difference.truth = shown(text);
    difference.symbol = symbol_of(truth, text);
    if (place == output.places.end()) {
        difference.kind = judge::DifferenceKind::missing;
        examiner.latest = SIZE_MAX;
        add(examiner, std::move(difference));
        return;
    }
    const std::string& given = output.lines[place->second].text;
    judge::Line line;
    std::string error;
    if (!judge::read_line(given, line, error)) {
        return;  // the judge has read it
    }
    difference.members = differing_members(truth, text, line, given);
    difference.in_gap = place->second < examiner.latest;
    difference.output = shown(given);
    examiner.latest = std::max(examiner.latest, place->second);
    if (difference.members != 0) {
        add(examiner, std::move(difference));
    }
}

void add_unexpected(Examiner& examiner, const OutputRun& output,
                    const std::unordered_set<std::uint64_t>& known, std::size_t run) {
    for (std::size_t at = 0; at != output.lines.size(); ++at) {
        const OutputLine& line = output.lines[at];
        if (known.contains(line.seq) && output.places.at(line.seq) == at) {
            continue;
        }
        LineDifference difference;
        difference.kind = judge::DifferenceKind::unexpected;
        difference.run = known.contains(line.seq) ? run : 0;
        difference.seq = line.seq;
        difference.output = shown(line.text);
        judge::Line read;
        std::string error;
        if (judge::read_line(line.text, read, error)) {
            difference.symbol = symbol_of(read, line.text);
        }
        add(examiner, std::move(difference));
    }
}

void examine_run(Examiner& examiner, const judge::RunResult& run) {
    const OutputRun output = read_output_run(examiner.judgment.judged_out, run.output);
    std::unordered_set<std::uint64_t> known;
    std::string error;
    examiner.latest = 0;
    const auto take = [&](std::string_view text, std::uint64_t /*number*/) {
        judge::Line line;
        if (!judge::read_line(text, line, error) || line.mark) {
            return true;
        }
        known.insert(line.seq);
        if (!examiner.from_first || line.seq >= output.lowest) {
            examine_line(examiner, run.truth_run, text, line, output);
        }
        return true;
    };
    if (run.truth_run != 0) {
        each_line(
            {examiner.judgment.judged_truth, run.truth.offset, run.truth.line_number, run.truth.end_offset},
            take, error);
    }
    add_unexpected(examiner, output, known, run.truth_run);
}

// What the judge has kept of files that are too long to be looked at line by line.
void add_kept(Examiner& examiner) {
    for (const judge::Difference& kept : examiner.judgment.result.differences) {
        LineDifference difference;
        difference.kind = kept.kind;
        difference.run = kept.run;
        difference.seq = kept.seq;
        difference.members = kept.members;
        difference.truth = kept.truth_text;
        difference.output = kept.output_text;
        difference.in_gap = kept.in_gap;
        difference.symbol =
            judge::shown_value(kept.truth_text, static_cast<std::size_t>(judge::Member::symbol));
        std::erase(difference.symbol, '"');
        add(examiner, std::move(difference));
    }
}

}  // namespace

std::vector<LineDifference> differing_lines(const Judgment& judgment, bool from_first) {
    std::vector<LineDifference> found;
    Examiner examiner{judgment, from_first, found};
    if (regular_file_bytes(judgment.judged_truth) > examined_bytes_max ||
        regular_file_bytes(judgment.judged_out) > examined_bytes_max) {
        add_kept(examiner);
        return found;
    }
    for (const judge::RunResult& run : judgment.result.runs) {
        examine_run(examiner, run);
    }
    return found;
}

}  // namespace tessel::certify
