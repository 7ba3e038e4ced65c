#include "judge/tally.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

namespace tessel::judge {

namespace {

std::string shown(std::string_view text) {
    if (text.size() <= shown_bytes_max) {
        return std::string(text);
    }
    return fmt::format("{} ... ({} bytes)", text.substr(0, shown_bytes_max), text.size());
}

void keep_difference(Tally& tally, Difference difference) {
    ++tally.result->differences_found;
    if (tally.result->differences.size() < differences_kept_max) {
        tally.result->differences.push_back(std::move(difference));
    }
}

// Whether the next difference will be kept, so that its texts are worth copying.
bool keeps_more(const Tally& tally) {
    return tally.result->differences.size() < differences_kept_max;
}

// The chart's part that a sequence number falls into; nullptr when the run has no chart.
Bucket* bucket_of(RunResult& run, std::uint64_t seq) {
    if (run.buckets.empty()) {
        return nullptr;
    }
    const std::uint64_t inside = std::clamp(seq, run.truth.lowest, run.truth.highest) - run.truth.lowest;
    const double share =
        static_cast<double>(inside) / (static_cast<double>(run.truth.highest - run.truth.lowest) + 1);
    const auto index = static_cast<std::size_t>(share * static_cast<double>(run.buckets.size()));
    return &run.buckets[std::min(index, run.buckets.size() - 1)];
}

}  // namespace

void begin_run(Tally& tally, RunResult& run) {
    tally.run = &run;
    tally.gap = Difference{};
    tally.gap.lines = 0;
}

void count_mismatched(Tally& tally, std::uint64_t seq, std::uint32_t members, LineAt truth, LineAt output) {
    ++tally.run->figures.mismatched;
    if (Bucket* bucket = bucket_of(*tally.run, seq)) {
        ++bucket->mismatched;
    }
    Difference difference;
    difference.run = tally.run->truth_run;
    difference.seq = seq;
    difference.seq_last = seq;
    difference.members = members;
    difference.truth_line = truth.line_number;
    difference.output_line = output.line_number;
    if (keeps_more(tally)) {
        difference.truth_text = shown(truth.text);
        difference.output_text = shown(output.text);
    }
    keep_difference(tally, std::move(difference));
}

void count_missing(Tally& tally, std::uint64_t seq, LineAt truth) {
    ++tally.run->figures.missing;
    if (Bucket* bucket = bucket_of(*tally.run, seq)) {
        ++bucket->missing;
    }
    if (tally.gap.lines == 0) {
        tally.gap.kind = DifferenceKind::missing;
        tally.gap.run = tally.run->truth_run;
        tally.gap.seq = seq;
        tally.gap.truth_line = truth.line_number;
        tally.gap.truth_text = keeps_more(tally) ? shown(truth.text) : std::string();
    }
    ++tally.gap.lines;
    tally.gap.seq_last = seq;
}

void end_gap(Tally& tally) {
    if (tally.gap.lines == 0) {
        return;
    }
    Figures& figures = tally.run->figures;
    if (tally.gap.lines > figures.longest_missing) {
        figures.longest_missing = tally.gap.lines;
        figures.longest_missing_first = tally.gap.seq;
        figures.longest_missing_last = tally.gap.seq_last;
    }
    keep_difference(tally, std::move(tally.gap));
    tally.gap = Difference{};
    tally.gap.lines = 0;
}

void count_unexpected(Tally& tally, std::uint64_t seq, LineAt output, std::uint64_t Figures::*cause,
                      std::string_view reason) {
    ++tally.run->figures.unexpected;
    ++(tally.run->figures.*cause);
    if (Bucket* bucket = bucket_of(*tally.run, seq)) {
        ++bucket->unexpected;
    }
    if (!keeps_more(tally)) {
        ++tally.result->differences_found;
        return;
    }
    Difference difference;
    difference.kind = DifferenceKind::unexpected;
    difference.run = tally.run->truth_run;
    difference.seq = seq;
    difference.seq_last = seq;
    difference.reason = reason;
    difference.output_line = output.line_number;
    difference.output_text = shown(output.text);
    keep_difference(tally, std::move(difference));
}

void add_figures(Figures& total, const Figures& part) {
    for (const auto field : {&Figures::truth_lines, &Figures::output_lines, &Figures::matched,
                             &Figures::mismatched, &Figures::missing, &Figures::unexpected,
                             &Figures::repeated, &Figures::unknown, &Figures::too_late, &Figures::left_out}) {
        total.*field += part.*field;
    }
    if (part.longest_missing > total.longest_missing) {
        total.longest_missing = part.longest_missing;
        total.longest_missing_first = part.longest_missing_first;
        total.longest_missing_last = part.longest_missing_last;
    }
}

}  // namespace tessel::judge
