#include "judge/findings.h"

#include <algorithm>
#include <utility>

namespace tessel::judge {

namespace {

void keep_difference(Result& result, Difference difference) {
    if (result.differences.size() < differences_kept_max) {
        result.differences.push_back(std::move(difference));
    }
}

// Enters the piece's examples of members and symbols.
void enter_examples(Findings& findings, PieceFindings& found) {
    Result& result = *findings.result;
    for (MemberDifference& first : found.first) {
        std::string key = first.symbol;
        key += static_cast<char>(first.member);
        const auto place = findings.examples.find(key);
        if (place != findings.examples.end()) {
            result.examples[place->second].lines += first.lines;
        } else if (result.examples.size() == examples_kept_max) {
            result.more_examples = true;
        } else {
            findings.examples.emplace(std::move(key), result.examples.size());
            result.examples.push_back(std::move(first));
        }
    }
}

// Whether a mismatched line is the one that an example comes from.
bool is_example(const Findings& findings, const Difference& difference, const PieceFindings& found) {
    for (const auto& [key, index] : found.first_index) {
        const auto place = findings.examples.find(key);
        if (place != findings.examples.end()) {
            const MemberDifference& example = findings.result->examples[place->second];
            if (example.seq == difference.seq && example.run == difference.run &&
                (difference.members >> example.member & 1U) != 0) {
                return true;
            }
        }
    }
    return false;
}

// Enters notes and examples by their order in the piece.
void enter_differences(Findings& findings, Piece& piece) {
    Result& result = *findings.result;
    result.differences_found += piece.notes_found + piece.found.mismatched.size();
    auto note = piece.notes.begin();
    auto example = piece.found.examples.begin();
    while (result.differences.size() < differences_kept_max &&
           (note != piece.notes.end() || example != piece.found.examples.end())) {
        const bool note_first = example == piece.found.examples.end() ||
                                (note != piece.notes.end() && note->task <= example->task);
        if (note_first) {
            keep_difference(result, std::move(note->difference));
            ++note;
        } else {
            if (is_example(findings, example->difference, piece.found)) {
                keep_difference(result, std::move(example->difference));
            }
            ++example;
        }
    }
}

}  // namespace

bool enter_piece(Findings& findings, Piece& piece) {
    PieceFindings& found = piece.found;
    if (!found.error.empty()) {
        findings.error = found.error;
        return false;
    }
    Result& result = *findings.result;
    for (std::size_t member = 0; member != member_count; ++member) {
        result.members[member].compared += found.members[member].compared;
        result.members[member].mismatched += found.members[member].mismatched;
    }
    piece.run->totals.matched += found.matched;
    piece.run->totals.mismatched += found.mismatched.size();
    for (const std::size_t task : found.mismatched) {
        if (Bucket* bucket = bucket_of(*piece.run, piece.tasks[task].seq)) {
            ++bucket->mismatched;
        }
    }
    for (const std::string& name : found.unknown_members) {
        note_unknown_member(result.unknown_members, result.more_unknown_members, name);
    }
    result.more_unknown_members = result.more_unknown_members || found.more_unknown_members;
    result.known_members = result.known_members || found.known_members;
    for (const LatencySample& sample : found.latencies) {
        enter_sample(result.latencies, sample);
    }
    enter_examples(findings, found);
    enter_differences(findings, piece);
    return true;
}

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

void add_totals(Totals& whole, const Totals& part) {
    for (const auto field : {&Totals::truth_lines, &Totals::output_lines, &Totals::matched,
                             &Totals::mismatched, &Totals::missing, &Totals::unexpected, &Totals::repeated,
                             &Totals::unknown, &Totals::too_late, &Totals::left_out, &Totals::torn}) {
        whole.*field += part.*field;
    }
    if (part.longest_missing > whole.longest_missing) {
        whole.longest_missing = part.longest_missing;
        whole.longest_missing_first = part.longest_missing_first;
        whole.longest_missing_last = part.longest_missing_last;
    }
}

}  // namespace tessel::judge
