#pragma once

#include "certify/case.h"
#include "certify/certificate.h"
#include "certify/feed_run.h"
#include "judge/judge.h"

#include <string>
#include <vector>

// What a handler wrote, judged against the truth log by what the case expects.
namespace tessel::certify {

struct JudgeInput {
    std::string truth_path;
    std::string out_path;
    std::string folder;  // for files in between
    Expectation expect;
    std::vector<std::vector<DroppedRange>> dropped;  // of each run of the feed
};

struct Judgment {
    bool good = false;
    std::string reason;  // why it is not
    judge::Result result;
    // What the judge was given: the files themselves, or what the case leaves of them.
    std::string judged_truth;
    std::string judged_out;
};

// Never fails: what cannot be judged is not good, with a reason.
Judgment judge_output(const JudgeInput& input);

// The lines of OUTPUT as they are judged: with `compare`, without all members but those; from the first
// dropped message on, with Mismatched::after_loss, only their numbers. Lines that are none stay, so line
// numbers do, too.
bool filter_output(const JudgeInput& input, const std::string& to, std::string& error);

// The lines of the truth as they are judged: with Missing::dropped, without those of dropped messages that
// OUTPUT does not have.
bool filter_truth(const JudgeInput& input, const std::string& to, std::string& error);

// Whether a run's dropped messages include this one.
bool was_dropped(const std::vector<DroppedRange>& ranges, std::uint64_t seq);

}  // namespace tessel::certify
