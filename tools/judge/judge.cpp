#include "judge/judge.h"

#include "judge/tally.h"
#include "judge/value.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <map>

namespace tessel::judge {

namespace {

constexpr std::size_t foreign_names_max = 10;

// An OUTPUT line that came before its turn.
struct HeldLine {
    std::string text;
    std::uint64_t line_number = 0;
};

// A truth line that had its turn, kept for a while to tell a repeated OUTPUT line from one that came too
// late.
struct PastLine {
    std::uint64_t seq = 0;
    bool found = false;
};

struct TruthLine {
    std::string_view text;
    std::uint64_t line_number = 0;
    Line line;
};

struct JudgeState {
    LineSource truth;
    LineSource output;
    Tally tally;
    std::map<std::uint64_t, HeldLine> held;  // by sequence number, each behind the truth line that is due
    std::size_t held_bytes = 0;
    bool output_ended = false;
    std::deque<PastLine> past;  // rising
    Line output_line;           // scratch, kept for its memory
    std::string* error = nullptr;
};

bool bad_line(JudgeState& state, const LineSource& source, std::uint64_t line_number,
              const std::string& reason) {
    *state.error = fmt::format("{}:{}: {}", source.path, line_number, reason);
    return false;
}

constexpr std::string_view unknown_reason = "no truth line has this sequence number";
constexpr std::string_view repeated_reason = "repeated: this sequence number had its line already";
constexpr std::string_view too_late_reason = "too late: its truth line was counted as missing before it came";
constexpr std::string_view far_back_reason = "too late or repeated: further back than the judge remembers";

// An OUTPUT line for a truth line that had its turn already, or that never was.
void count_past(JudgeState& state, std::uint64_t seq, std::string_view text, std::uint64_t line_number) {
    const auto before = [](const PastLine& line, std::uint64_t number) { return line.seq < number; };
    const auto place = std::lower_bound(state.past.begin(), state.past.end(), seq, before);
    if (place != state.past.end() && place->seq == seq) {
        if (place->found) {
            count_unexpected(state.tally, seq, {text, line_number}, &Figures::repeated, repeated_reason);
        } else {
            count_unexpected(state.tally, seq, {text, line_number}, &Figures::too_late, too_late_reason);
        }
    } else if (!state.past.empty() && seq < state.past.front().seq && seq >= state.tally.run->truth.lowest) {
        count_unexpected(state.tally, seq, {text, line_number}, &Figures::too_late, far_back_reason);
    } else {
        count_unexpected(state.tally, seq, {text, line_number}, &Figures::unknown, unknown_reason);
    }
}

void note_foreign(Result& result, const std::string& name) {
    if (!name.empty() && result.foreign.size() < foreign_names_max &&
        std::find(result.foreign.begin(), result.foreign.end(), name) == result.foreign.end()) {
        result.foreign.push_back(name);
    }
}

// Compares the members that OUTPUT gives. A member that the truth line does not have is a mismatch, unless
// OUTPUT says null, which means exactly that.
std::uint32_t compare_members(JudgeState& state, const TruthLine& truth, std::string_view text) {
    std::uint32_t mismatched = 0;
    for (std::size_t member = 0; member != member_count; ++member) {
        const std::string_view got = member_text(state.output_line, text, member);
        if (got.empty()) {
            continue;
        }
        const std::string_view expected = member_text(truth.line, truth.text, member);
        ++state.tally.result->members[member].compared;
        const bool same = expected.empty() ? got == "null" : same_value(member, expected, got);
        if (!same) {
            ++state.tally.result->members[member].mismatched;
            mismatched |= 1U << member;
        }
    }
    return mismatched;
}

// Judges one truth line with the OUTPUT line of the same number. False when that line cannot be read.
bool compare_lines(JudgeState& state, const TruthLine& truth, std::string_view text,
                   std::uint64_t line_number) {
    end_gap(state.tally);
    Figures& figures = state.tally.run->figures;
    if (text == truth.text) {  // the truth line has been read, so this one needs no reading
        for (std::size_t member = 0; member != member_count; ++member) {
            state.tally.result->members[member].compared += truth.line.members[member].length != 0 ? 1 : 0;
        }
        ++figures.matched;
        return true;
    }
    std::string reason;
    if (!read_line(text, state.output_line, &reason)) {
        return bad_line(state, state.output, line_number, reason);
    }
    note_foreign(*state.tally.result, state.output_line.foreign);
    const std::uint32_t members = compare_members(state, truth, text);
    if (members == 0) {
        ++figures.matched;
        return true;
    }
    count_mismatched(state.tally, truth.line.seq, members, {truth.text, truth.line_number},
                     {text, line_number});
    return true;
}

// The next OUTPUT line that is no mark, with its sequence number. The rest of the line is only read when it
// is compared.
ReadResult next_output(JudgeState& state, std::string_view& text, std::uint64_t& seq) {
    while (true) {
        const ReadResult read = next_line(state.output, text, state.error);
        if (read != ReadResult::line) {
            return read;
        }
        if (peek_sequence(text, seq)) {
            break;
        }
        std::string reason;
        if (!read_line(text, state.output_line, &reason)) {
            bad_line(state, state.output, state.output.line_number, reason);
            return ReadResult::error;
        }
        if (!state.output_line.mark) {
            seq = state.output_line.seq;
            break;
        }
    }
    ++state.tally.run->figures.output_lines;
    return ReadResult::line;
}

// A line that is not compared must be a line all the same.
bool check_output(JudgeState& state, std::string_view text, std::uint64_t line_number) {
    std::string reason;
    return read_line(text, state.output_line, &reason) || bad_line(state, state.output, line_number, reason);
}

// Held lines that no truth line will ask for any more: every number below `seq`.
bool drop_held_below(JudgeState& state, std::uint64_t seq) {
    while (!state.held.empty() && state.held.begin()->first < seq) {
        const auto first = state.held.begin();
        if (!check_output(state, first->second.text, first->second.line_number)) {
            return false;
        }
        count_past(state, first->first, first->second.text, first->second.line_number);
        state.held_bytes -= first->second.text.size();
        state.held.erase(first);
    }
    return true;
}

// Puts one OUTPUT line that is not the one due where it belongs: behind (unexpected) or ahead (held). False
// at a bad line.
bool put_aside(JudgeState& state, std::uint64_t due, std::uint64_t seq, std::string_view text) {
    const std::uint64_t line_number = state.output.line_number;
    if (seq >= due && seq <= state.tally.run->truth.highest && !state.held.contains(seq)) {
        state.held.emplace(seq, HeldLine{std::string(text), line_number});
        state.held_bytes += text.size();
        return true;
    }
    if (!check_output(state, text, line_number)) {
        return false;
    }
    if (seq < due) {
        count_past(state, seq, text, line_number);
    } else if (seq > state.tally.run->truth.highest) {
        count_unexpected(state.tally, seq, {text, line_number}, &Figures::unknown, unknown_reason);
    } else {
        count_unexpected(state.tally, seq, {text, line_number}, &Figures::repeated, repeated_reason);
    }
    return true;
}

// Finds the OUTPUT line for the truth line that is due and compares them, or counts the truth line as
// missing. False at a bad line of OUTPUT.
bool judge_line(JudgeState& state, const TruthLine& truth) {
    const std::uint64_t due = truth.line.seq;
    if (!drop_held_below(state, due)) {
        return false;
    }
    bool found = false;
    if (!state.held.empty() && state.held.begin()->first == due) {
        const HeldLine held = std::move(state.held.begin()->second);
        state.held.erase(state.held.begin());
        state.held_bytes -= held.text.size();
        found = true;
        if (!compare_lines(state, truth, held.text, held.line_number)) {
            return false;
        }
    }
    while (!found && !state.output_ended && state.held.size() < window_lines_max &&
           state.held_bytes < window_bytes_max) {
        std::string_view text;
        std::uint64_t seq = 0;
        const ReadResult read = next_output(state, text, seq);
        if (read == ReadResult::error) {
            return false;
        }
        if (read == ReadResult::end) {
            state.output_ended = true;
        } else if (seq == due) {
            found = true;
            if (!compare_lines(state, truth, text, state.output.line_number)) {
                return false;
            }
        } else if (!put_aside(state, due, seq, text)) {
            return false;
        }
    }
    if (!found) {
        count_missing(state.tally, due, {truth.text, truth.line_number});
    }
    state.past.push_back({due, found});
    if (state.past.size() > window_lines_max) {
        state.past.pop_front();
    }
    return true;
}

// What OUTPUT still has when the truth has ended.
bool drain_output(JudgeState& state) {
    if (!drop_held_below(state, UINT64_MAX)) {
        return false;
    }
    while (!state.output_ended) {
        std::string_view text;
        std::uint64_t seq = 0;
        const ReadResult read = next_output(state, text, seq);
        if (read == ReadResult::error) {
            return false;
        }
        if (read == ReadResult::end) {
            state.output_ended = true;
        } else if (!check_output(state, text, state.output.line_number)) {
            return false;
        } else {
            count_past(state, seq, text, state.output.line_number);
        }
    }
    return true;
}

bool judge_truth_lines(JudgeState& state, const Options& options) {
    const RunResult& run = *state.tally.run;
    TruthLine truth;
    ReadResult read = ReadResult::line;
    while ((read = next_line(state.truth, truth.text, state.error)) == ReadResult::line) {
        truth.line_number = state.truth.line_number;
        std::string reason;
        if (!read_line(truth.text, truth.line, &reason)) {
            return bad_line(state, state.truth, truth.line_number, reason);
        }
        if (truth.line.mark) {
            ++state.tally.result->truth_marks;
            continue;
        }
        const bool before = options.from_first && run.output.lines != 0 && truth.line.seq < run.output.lowest;
        const bool behind = options.to_last && run.output.lines != 0 && truth.line.seq > run.output.highest;
        if (before || behind) {
            ++state.tally.run->figures.left_out;
            continue;
        }
        ++state.tally.run->figures.truth_lines;
        if (!judge_line(state, truth)) {
            return false;
        }
    }
    return read == ReadResult::end;
}

// Judges one run of the truth with one of OUTPUT; either may be without lines.
bool judge_run(JudgeState& state, const Options& options) {
    RunResult& run = *state.tally.run;
    state.held.clear();
    state.held_bytes = 0;
    state.past.clear();
    state.output_ended = run.output.lines == 0;
    seek_source(state.truth, run.truth.offset, run.truth.end_offset, run.truth.line_number);
    seek_source(state.output, run.output.offset, run.output.end_offset, run.output.line_number);
    if (run.truth.lines != 0 && !judge_truth_lines(state, options)) {
        return false;
    }
    end_gap(state.tally);
    return drain_output(state);
}

// Which run of the truth is judged with which of OUTPUT, in OUTPUT's order.
std::vector<RunResult> pair_runs(const std::vector<Run>& truth, std::size_t first_number,
                                 const std::vector<Run>& output) {
    std::vector<RunResult> pairs;
    const std::size_t count = std::max<std::size_t>(output.size(), 1);
    for (std::size_t index = 0; index != count; ++index) {
        const std::size_t from_end = count - index;
        RunResult pair;
        if (from_end <= truth.size()) {
            pair.truth_run = first_number + truth.size() - from_end;
            pair.truth = truth[truth.size() - from_end];
        }
        if (!output.empty()) {
            pair.output = output[index];
        }
        if (pair.truth_run != 0 && pairs.size() < charted_runs_max) {
            pair.buckets.resize(
                std::min<std::uint64_t>(buckets_per_run, pair.truth.highest - pair.truth.lowest + 1));
        }
        pairs.push_back(std::move(pair));
    }
    return pairs;
}

}  // namespace

bool judge(const Options& options, Result& result, std::string* error) {
    JudgeState state;
    state.tally.result = &result;
    state.error = error;
    std::vector<Run> truth_runs;
    std::vector<Run> output_runs;
    if (!open_source(state.truth, options.truth_path, error) ||
        !open_source(state.output, options.output_path, error) ||
        !find_truth_runs(state.truth, truth_runs, error)) {
        return false;
    }
    result.truth_runs = truth_runs.size();
    if (truth_runs.empty()) {
        *error = fmt::format("{}:1: no truth line in the file", options.truth_path);
        return false;
    }
    std::size_t first_number = 1;
    if (options.run > truth_runs.size()) {
        *error =
            fmt::format("{}: no run {}, the file has {}", options.truth_path, options.run, truth_runs.size());
        return false;
    }
    if (options.run != 0) {
        first_number = options.run;
        truth_runs = {truth_runs[options.run - 1]};
    }
    if (!find_output_runs(state.output, truth_runs, output_runs, error)) {
        return false;
    }
    result.output_runs = output_runs.size();
    result.runs = pair_runs(truth_runs, first_number, output_runs);
    for (RunResult& run : result.runs) {
        begin_run(state.tally, run);
        if (!judge_run(state, options)) {
            return false;
        }
        add_figures(result.figures, run.figures);
    }
    return true;
}

bool agrees(const Result& result) {
    return result.figures.mismatched == 0 && result.figures.missing == 0 && result.figures.unexpected == 0;
}

}  // namespace tessel::judge
