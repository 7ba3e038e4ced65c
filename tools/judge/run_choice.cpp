#include "judge/run_choice.h"

#include "judge/record_reader.h"
#include "judge/value.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace tessel::judge {

namespace {

using Samples = std::unordered_map<std::uint64_t, std::string>;

bool take_samples(LineSource& truth, const Run& run, Samples& samples, std::string& error) {
    const std::uint64_t step = run.lines / choice_samples_max + 1;
    if (!seek_source(truth, run.offset, run.end_offset, run.line_number, error)) {
        return false;
    }
    Record record;
    Line scratch;
    std::uint64_t index = 0;
    ReadResult read = ReadResult::line;
    while ((read = next_record(truth, record, scratch, error)) == ReadResult::line) {
        if (!record.mark && index++ % step == 0) {
            samples.emplace(record.seq, record.text);
        }
    }
    return read == ReadResult::end;
}

bool agrees_with(const Record& record, const std::string& truth_text) {
    Line truth;
    Line output;
    std::string reason;  // a line that cannot be read is reported when it is judged
    if (!read_line(truth_text, truth, reason) || !read_line(record.text, output, reason)) {
        return false;
    }
    for (std::size_t member = 0; member != member_count; ++member) {
        const std::string_view got = member_text(output, record.text, member);
        const std::string_view expected = member_text(truth, truth_text, member);
        if (!got.empty() && !(expected.empty() ? got == "null" : same_value(member, expected, got))) {
            return false;
        }
    }
    return true;
}

struct Score {
    std::uint64_t compared = 0;
    std::uint64_t agreed = 0;
};

bool score_run(LineSource& output, const Run& run, const Samples& samples, Score& score, std::string& error) {
    if (!seek_source(output, run.offset, run.end_offset, run.line_number, error)) {
        return false;
    }
    Record record;
    Line scratch;
    ReadResult read = ReadResult::line;
    while ((read = next_record(output, record, scratch, error)) == ReadResult::line) {
        const auto sample = record.mark ? samples.end() : samples.find(record.seq);
        if (sample != samples.end()) {
            ++score.compared;
            score.agreed += agrees_with(record, sample->second) ? 1 : 0;
        }
    }
    return read == ReadResult::end;
}

}  // namespace

bool choose_run(LineSource& truth, const Run& truth_run, LineSource& output, const std::vector<Run>& runs,
                RunChoice& choice, std::string& error) {
    Samples samples;
    if (!take_samples(truth, truth_run, samples, error)) {
        return false;
    }
    std::vector<Score> scores(runs.size());
    for (std::size_t index = 0; index != runs.size(); ++index) {
        if (!score_run(output, runs[index], samples, scores[index], error)) {
            return false;
        }
        if (scores[index].agreed >= scores[choice.judged].agreed) {
            choice.judged = index;
        }
    }
    for (std::size_t index = 0; index != runs.size(); ++index) {
        const Score& score = scores[index];
        if (index != choice.judged && score.compared != 0 && score.agreed * 10 >= score.compared * 9) {
            choice.repeats.push_back(index);
        }
    }
    return true;
}

}  // namespace tessel::judge
