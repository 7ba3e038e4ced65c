#include "judge/matcher.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tessel::judge {

namespace {

constexpr std::string_view unknown_reason = "no truth line has this sequence number";
constexpr std::string_view repeated_reason = "repeated: this sequence number had its line already";
constexpr std::string_view repeated_run_reason = "repeated: another run of OUTPUT has the same lines";
constexpr std::string_view too_late_reason = "too late: its truth line was counted as missing before it came";
constexpr std::string_view far_back_reason = "too late or repeated: further back than the judge remembers";

Piece& current_piece(Matcher& matcher) {
    return *matcher.workers->current;
}

// Adds a task whose OUTPUT text the piece keeps already, and hands the piece out when it is full. False at an
// invalid line in an earlier piece.
bool add_task(Matcher& matcher, const Task& task) {
    Piece& piece = current_piece(matcher);
    piece.tasks.push_back(task);
    piece.bytes += task.truth.text.size() + task.output.text.size();
    if (task.truth.line_number != 0) {
        keep_block(piece, *matcher.truth);
    }
    return (piece.tasks.size() < piece_tasks_max && piece.bytes < piece_bytes_max) ||
           hand_out_piece(*matcher.workers, *matcher.findings);
}

// Whether one more difference of this piece may be kept, so that its texts are worth copying.
bool keeps_more(Matcher& matcher) {
    return matcher.result->differences.size() + current_piece(matcher).notes.size() < differences_kept_max;
}

// Counts a difference, and keeps it when there is room.
void add_note(Matcher& matcher, Difference difference) {
    Piece& piece = current_piece(matcher);
    ++piece.notes_found;
    if (keeps_more(matcher)) {
        piece.notes.push_back({piece.tasks.size(), std::move(difference)});
    }
}

// A truth line without an OUTPUT line. Missing lines in a row are one difference, noted by end_gap.
void count_missing(Matcher& matcher, std::uint64_t seq, const LineAt& truth) {
    ++matcher.run->totals.missing;
    matcher.any_missing = true;
    if (Bucket* bucket = bucket_of(*matcher.run, seq)) {
        ++bucket->missing;
    }
    Difference& gap = matcher.gap;
    if (gap.lines == 0) {
        gap.kind = DifferenceKind::missing;
        gap.run = matcher.run->truth_run;
        gap.seq = seq;
        gap.truth_line = truth.line_number;
        gap.truth_text = keeps_more(matcher) ? shown_text(truth.text, shown_bytes_max) : std::string();
    }
    ++gap.lines;
    gap.seq_last = seq;
}

void end_gap(Matcher& matcher) {
    Difference& gap = matcher.gap;
    if (gap.lines == 0) {
        return;
    }
    Totals& totals = matcher.run->totals;
    if (gap.lines > totals.longest_missing) {
        totals.longest_missing = gap.lines;
        totals.longest_missing_first = gap.seq;
        totals.longest_missing_last = gap.seq_last;
    }
    add_note(matcher, std::move(gap));
    gap = Difference{};
    gap.lines = 0;
}

// An OUTPUT line without a truth line; cause is the count of those, reason says why in words.
void count_unexpected(Matcher& matcher, std::uint64_t seq, const LineAt& output, std::uint64_t Totals::*cause,
                      std::string_view reason) {
    Totals& totals = matcher.run->totals;
    ++totals.unexpected;
    ++(totals.*cause);
    if (Bucket* bucket = bucket_of(*matcher.run, seq)) {
        ++bucket->unexpected;
    }
    Difference difference;
    if (keeps_more(matcher)) {
        difference.kind = DifferenceKind::unexpected;
        difference.run = matcher.run->truth_run;
        difference.seq = seq;
        difference.seq_last = seq;
        difference.reason = reason;
        difference.output_line = output.line_number;
        difference.output_text = shown_text(output.text, shown_bytes_max);
    }
    add_note(matcher, std::move(difference));
}

void count_unknown(Matcher& matcher, std::uint64_t seq, const LineAt& output) {
    const std::vector<std::uint64_t>& torn = matcher.run->torn_numbers;
    if (std::find(torn.begin(), torn.end(), seq) != torn.end()) {
        ++matcher.run->totals.torn;
        return;
    }
    if (matcher.run->is_repeat) {
        count_unexpected(matcher, seq, output, &Totals::repeated, repeated_run_reason);
        return;
    }
    count_unexpected(matcher, seq, output, &Totals::unknown, unknown_reason);
}

// An OUTPUT line for a truth line that had its turn already, or that does not exist.
void count_past(Matcher& matcher, std::uint64_t seq, const LineAt& output) {
    const auto before = [](const PastLine& line, std::uint64_t number) { return line.seq < number; };
    const auto place = std::lower_bound(matcher.past.begin(), matcher.past.end(), seq, before);
    if (place != matcher.past.end() && place->seq == seq) {
        if (place->found) {
            count_unexpected(matcher, seq, output, &Totals::repeated, repeated_reason);
        } else {
            count_unexpected(matcher, seq, output, &Totals::too_late, too_late_reason);
        }
    } else if (!matcher.past.empty() && seq < matcher.past.front().seq && seq >= matcher.run->truth.lowest) {
        count_unexpected(matcher, seq, output, &Totals::too_late, far_back_reason);
    } else {
        count_unknown(matcher, seq, output);
    }
}

// The text of the OUTPUT line read last, kept with the piece.
LineAt keep_output(Matcher& matcher, const Record& record) {
    keep_block(current_piece(matcher), *matcher.output);
    return {record.text, record.line_number};
}

LineAt keep_held(Matcher& matcher, HeldLine held) {
    Piece& piece = current_piece(matcher);
    piece.own_texts.push_back(std::move(held.text));
    return {piece.own_texts.back(), held.line_number};
}

// A line that is not compared must be valid all the same.
bool add_check(Matcher& matcher, std::uint64_t seq, const LineAt& output) {
    return add_task(matcher, {{}, output, seq, false, false, 0});
}

// The next OUTPUT line that is no mark.
ReadResult next_output(Matcher& matcher, Record& record) {
    do {
        const ReadResult read = next_record(*matcher.output, record, matcher.scratch, matcher.error);
        if (read != ReadResult::line) {
            return read;
        }
    } while (record.mark);
    ++matcher.run->totals.output_lines;
    matcher.highest_read = std::max(matcher.highest_read, record.seq);
    return ReadResult::line;
}

// Whether the line read last comes after one with a larger number.
bool is_recovered(const Matcher& matcher, std::uint64_t seq) {
    return seq < matcher.highest_read;
}

HeldLine take_held(Matcher& matcher) {
    const auto first = matcher.held.begin();
    HeldLine held = std::move(first->second);
    matcher.held_bytes -= held.text.size();
    matcher.held.erase(first);
    return held;
}

// Held lines that no truth line will ask for any more: every number below `seq`.
bool drop_held_below(Matcher& matcher, std::uint64_t seq) {
    while (!matcher.held.empty() && matcher.held.begin()->first < seq) {
        const std::uint64_t number = matcher.held.begin()->first;
        const LineAt output = keep_held(matcher, take_held(matcher));
        count_past(matcher, number, output);
        if (!add_check(matcher, number, output)) {
            return false;
        }
    }
    return true;
}

// Puts one OUTPUT line that is not the one due where it belongs: below it (unexpected) or above (held).
bool put_aside(Matcher& matcher, std::uint64_t due, const Record& record) {
    const std::uint64_t highest = matcher.run->truth.highest;
    if (record.seq >= due && record.seq <= highest && !matcher.held.contains(record.seq)) {
        matcher.held.emplace(record.seq, HeldLine{std::string(record.text), record.line_number,
                                                  is_recovered(matcher, record.seq)});
        matcher.held_bytes += record.text.size();
        return true;
    }
    const LineAt output = keep_output(matcher, record);
    if (record.seq < due) {
        count_past(matcher, record.seq, output);
    } else if (record.seq > highest) {
        count_unknown(matcher, record.seq, output);
    } else {
        count_unexpected(matcher, record.seq, output, &Totals::repeated, repeated_reason);
    }
    return add_check(matcher, record.seq, output);
}

// Searches OUTPUT for the line that is due; `output` stays empty when it is not there. False at an invalid
// line.
bool find_output(Matcher& matcher, std::uint64_t due, LineAt& output, bool& recovered) {
    if (!matcher.held.empty() && matcher.held.begin()->first == due) {
        recovered = matcher.held.begin()->second.recovered;
        output = keep_held(matcher, take_held(matcher));
        return true;
    }
    Record record;
    // Up to the window's size of lines may come before the one that is due.
    while (!matcher.output_ended && matcher.held.size() <= window_lines_max &&
           matcher.held_bytes < window_bytes_max) {
        const ReadResult read = next_output(matcher, record);
        if (read == ReadResult::error) {
            return false;
        }
        if (read == ReadResult::end) {
            matcher.output_ended = true;
        } else if (record.seq == due) {
            output = keep_output(matcher, record);
            recovered = is_recovered(matcher, due);
            return true;
        } else if (!put_aside(matcher, due, record)) {
            return false;
        }
    }
    return true;
}

// Matches one truth line, or counts it as missing.
bool match_line(Matcher& matcher, const Record& truth) {
    LineAt output;
    const LineAt truth_at{truth.text, truth.line_number};
    bool recovered = false;
    std::uint64_t sip_ns = 0;
    if (!drop_held_below(matcher, truth.seq) || !find_output(matcher, truth.seq, output, recovered) ||
        (matcher.times != nullptr && !find_time(*matcher.times, truth.seq, sip_ns, matcher.error))) {
        return false;
    }
    const bool found = output.line_number != 0;
    if (found) {
        end_gap(matcher);
    } else {
        count_missing(matcher, truth.seq, truth_at);
    }
    const bool in_gap = matcher.any_missing || matcher.latest_output_line > output.line_number;
    matcher.latest_output_line = std::max(matcher.latest_output_line, output.line_number);
    matcher.past.push_back({truth.seq, found});
    if (matcher.past.size() > window_lines_max) {
        matcher.past.pop_front();
    }
    return add_task(matcher, {truth_at, output, truth.seq, in_gap, recovered, sip_ns});
}

bool is_left_out(const Matcher& matcher, std::uint64_t seq) {
    const Run& output = matcher.run->output;
    return output.lines != 0 && ((matcher.options->from_first && seq < output.lowest) ||
                                 (matcher.options->to_last && seq > output.highest));
}

bool match_truth_lines(Matcher& matcher) {
    Record truth;
    ReadResult read = ReadResult::line;
    while ((read = next_record(*matcher.truth, truth, matcher.scratch, matcher.error)) == ReadResult::line) {
        if (truth.mark) {
            ++matcher.result->truth_marks;
            continue;
        }
        if (is_left_out(matcher, truth.seq)) {
            ++matcher.run->totals.left_out;
            if (!add_task(matcher, {{truth.text, truth.line_number}, {}, truth.seq, false, false, 0})) {
                return false;
            }
            continue;
        }
        ++matcher.run->totals.truth_lines;
        if (!match_line(matcher, truth)) {
            return false;
        }
    }
    return read == ReadResult::end;
}

// What OUTPUT still has when the truth has ended.
bool drain_output(Matcher& matcher) {
    if (!drop_held_below(matcher, UINT64_MAX)) {
        return false;
    }
    Record record;
    while (!matcher.output_ended) {
        const ReadResult read = next_output(matcher, record);
        if (read == ReadResult::error) {
            return false;
        }
        if (read == ReadResult::end) {
            matcher.output_ended = true;
            continue;
        }
        const LineAt output = keep_output(matcher, record);
        count_past(matcher, record.seq, output);
        if (!add_check(matcher, record.seq, output)) {
            return false;
        }
    }
    return true;
}

bool match_run(Matcher& matcher) {
    const Run& truth = matcher.run->truth;
    const Run& output = matcher.run->output;
    const std::size_t runs_from_end =
        matcher.result->truth_runs - std::min(matcher.run->truth_run, matcher.result->truth_runs);
    if (matcher.times != nullptr && !begin_times(*matcher.times, runs_from_end, matcher.error)) {
        return false;
    }
    if (!seek_source(*matcher.truth, truth.offset, truth.end_offset, truth.line_number, matcher.error) ||
        !seek_source(*matcher.output, output.offset, output.end_offset, output.line_number, matcher.error)) {
        return false;
    }
    if (truth.lines != 0 && !match_truth_lines(matcher)) {
        return false;
    }
    end_gap(matcher);
    return drain_output(matcher);
}

}  // namespace

bool judge_run(Matcher& matcher, RunResult& run) {
    matcher.run = &run;
    matcher.held.clear();
    matcher.held_bytes = 0;
    matcher.output_ended = run.output.lines + run.output.outside == 0;
    matcher.past.clear();
    matcher.gap = Difference{};
    matcher.gap.lines = 0;
    matcher.any_missing = false;
    matcher.latest_output_line = 0;
    matcher.highest_read = 0;
    Piece& piece = current_piece(matcher);
    piece.run = &run;
    piece.options = matcher.options;
    piece.truth_name = matcher.truth->input.name;
    piece.output_name = matcher.output->input.name;
    const bool good = match_run(matcher);
    // An invalid line in a piece comes before the one at which the matching ended.
    if (!matcher.findings->error.empty() || !finish_pieces(*matcher.workers, *matcher.findings)) {
        matcher.error = matcher.findings->error;
        return false;
    }
    return good;
}

}  // namespace tessel::judge
