#include "certify/differences.h"

#include "certify/line_differences.h"
#include "certify/message_bytes.h"
#include "judge/report.h"

#include <algorithm>
#include <map>
#include <set>

namespace tessel::certify {

namespace {

using Messages = std::map<std::uint64_t, SentMessage>;

const char* word(judge::DifferenceKind kind) {
    switch (kind) {
        case judge::DifferenceKind::mismatched: return "mismatched";
        case judge::DifferenceKind::missing: return "missing";
        case judge::DifferenceKind::unexpected: break;
    }
    return "unexpected";
}

// The message of a line; nullptr when the feed no longer has it: it holds those of its last run.
const SentMessage* message_of(const LineDifference& line, const Judgment& judgment,
                              const Messages& messages) {
    const auto found = messages.find(line.seq);
    const bool last_run = line.run == judgment.result.truth_runs;
    return found != messages.end() && last_run ? &found->second : nullptr;
}

Finding finding_of(const LineDifference& line, const std::string& member, const SentMessage* message,
                   bool dropped) {
    Finding finding;
    finding.kind = word(line.kind);
    finding.member = member;
    finding.symbol = line.symbol;
    if (message != nullptr) {
        finding.message = message->name;
        finding.facts = message->facts;
    }
    finding.facts.emplace_back("in_gap", line.in_gap ? "true" : "false");
    if (dropped) {
        finding.facts.emplace_back("retransmitted", "true");
    }
    return finding;
}

// Adds the finding, or counts one more line of one that is there.
struct FindingList {
    CaseResult& result;
    std::map<std::string, std::size_t> places;
};

void add_finding(FindingList& list, Finding finding) {
    std::string key = finding.kind + '\n' + finding.member + '\n' + finding.symbol + '\n' + finding.message;
    for (const auto& [name, value] : finding.facts) {
        key += '\n' + name + '=' + value;
    }
    const auto found = list.places.find(key);
    if (found != list.places.end()) {
        ++list.result.findings[found->second].lines;
    } else if (list.result.findings.size() < findings_max) {
        list.places.emplace(std::move(key), list.result.findings.size());
        list.result.findings.push_back(std::move(finding));
    }
}

ShownDifference shown_difference(const LineDifference& line, const SentMessage* message) {
    ShownDifference shown;
    shown.seq = line.seq;
    shown.kind = word(line.kind);
    shown.symbol = line.symbol;
    shown.members = judge::member_list(line.members);
    shown.truth = line.truth;
    shown.output = line.output;
    shown.in_gap = line.in_gap;
    if (message != nullptr) {
        shown.message_hex = message->hex;
        shown.message_decoded = message->decoded;
    }
    return shown;
}

// The first line, and then those that differ in another way, before more of the same.
void add_examples(const std::vector<LineDifference>& lines, const Judgment& judgment,
                  const Messages& messages, CaseResult& result) {
    std::set<std::string> ways;
    std::vector<const LineDifference*> others;
    std::vector<const LineDifference*> chosen;
    for (const LineDifference& line : lines) {
        const SentMessage* const message = message_of(line, judgment, messages);
        const std::string way =
            word(line.kind) + std::to_string(line.members) + (message == nullptr ? "" : message->name);
        (ways.insert(way).second ? chosen : others).push_back(&line);
    }
    chosen.insert(chosen.end(), others.begin(), others.end());
    const std::size_t room = examples_max - std::min(examples_max, result.examples.size());
    chosen.resize(std::min(chosen.size(), room));
    std::sort(chosen.begin(), chosen.end(), [](const LineDifference* left, const LineDifference* right) {
        return std::tie(left->run, left->seq) < std::tie(right->run, right->seq);
    });
    for (const LineDifference* line : chosen) {
        result.examples.push_back(shown_difference(*line, message_of(*line, judgment, messages)));
    }
}

std::vector<std::uint64_t> numbers_of(const std::vector<LineDifference>& lines, const Judgment& judgment) {
    std::set<std::uint64_t> numbers;
    for (const LineDifference& line : lines) {
        if (line.run == judgment.result.truth_runs && numbers.size() < fetched_messages_max) {
            numbers.insert(line.seq);
        }
    }
    return {numbers.begin(), numbers.end()};
}

}  // namespace

void find_differences(const JudgeInput& input, const Judgment& judgment, const Endpoints& feed,
                      CaseResult& result) {
    const std::vector<LineDifference> lines = differing_lines(judgment, input.expect.from_first);
    const Messages messages = fetch_messages(feed, numbers_of(lines, judgment));
    FindingList list{result, {}};
    for (const LineDifference& line : lines) {
        const SentMessage* const message = message_of(line, judgment, messages);
        const bool dropped = line.run != 0 && line.run <= input.dropped.size() &&
                             was_dropped(input.dropped[line.run - 1], line.seq);
        if (line.members == 0) {
            add_finding(list, finding_of(line, "", message, dropped));
        }
        for (std::size_t member = 0; member != judge::member_count; ++member) {
            if ((line.members >> member & 1U) != 0) {
                add_finding(list,
                            finding_of(line, std::string(judge::member_names[member]), message, dropped));
            }
        }
    }
    add_examples(lines, judgment, messages, result);
}

}  // namespace tessel::certify
