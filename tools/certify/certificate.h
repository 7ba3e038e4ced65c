#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessel::certify {

enum class Verdict : std::uint8_t { pass, fail, error, skipped };

// The first lines that differ, in context, for people.
struct ShownDifference {
    std::uint64_t seq = 0;
    std::string kind;     // "mismatched", "missing", "unexpected"
    std::string symbol;   // "" when the line has none
    std::string members;  // "nbbo, status"
    std::string truth;    // the lines as they are, cut at 4,000 bytes
    std::string output;
    std::string message_hex;      // the message's bytes, "" when the feed no longer has them
    std::string message_decoded;  // its fields as one JSON object, as `tessel-listen --decode` writes them
    bool in_gap = false;
};

// What the differences have in common is found from these: one a differing member, symbol and kind of
// message.
struct Finding {
    std::string kind;    // "mismatched", "missing", "unexpected"
    std::string member;  // "" for missing and unexpected lines
    std::string symbol;
    std::string
        message;  // "short quote", "trade correction", ... the name of docs/messages.md; "" when unknown
    std::vector<std::pair<std::string, std::string>> facts;  // "nbbo_indicator" "4", "in_gap" "true", ...
    std::uint64_t lines = 1;
};

struct LoadPoint {
    std::uint64_t rate = 0;  // messages a second, as measured
    std::uint64_t missing = 0;
};

struct CaseResult {
    std::string handler;  // its name in a matrix; "handler" for a single one
    std::string name;     // "loss/one_packet"
    std::string group;
    std::string title;
    Verdict verdict = Verdict::error;
    std::string reason;  // "" for a pass
    double seconds = 0;
    std::uint64_t seed = 0;
    std::string command;  // a shell line that runs this case alone

    std::string folder;  // where its files are kept, "" when they are not
    std::uint64_t truth_lines = 0;
    std::uint64_t matched = 0;
    std::uint64_t mismatched = 0;
    std::uint64_t missing = 0;
    std::uint64_t unexpected = 0;
    std::vector<Finding> findings;          // at most 1,000
    std::vector<ShownDifference> examples;  // at most 5
    std::string log_tail;                   // the handler's last 4,000 bytes of output, when it failed

    std::vector<LoadPoint> curve;  // load cases
    std::uint64_t highest_rate = 0;
    std::string note;  // what a reader of the curve should know, "" for nothing
};

struct Cause {
    std::string text;                // "all 14 mismatches are in messages with NBBO indicator 4"
    std::vector<std::string> cases;  // names; "HANDLER: NAME" in a matrix
};

struct Handler {
    std::string name;
    std::string command;
};

// The seeds first to last, divided among jobs. No jobs: the run is of no campaign.
struct Campaign {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t jobs = 0;
    std::vector<std::uint64_t> done;  // the jobs whose results these are, from 1 on, rising
};

// Everything a report is made of. Read from and written to the file of --json (certificate_json.cpp).
struct Certificate {
    std::string tool;  // "tessel-certify 1.2.3"
    std::vector<Handler> handlers;
    std::uint64_t seed = 0;
    Campaign campaign;
    std::vector<std::string> about;
    std::vector<CaseResult> cases;
    std::vector<Cause> causes;
};

std::string_view verdict_word(Verdict verdict);

// The file of --json: {tool, handler, seed, cases: [{name, group, title, verdict, reason, seconds, seed,
// command, ...}], causes, totals}.
std::string certificate_json(const Certificate& certificate);

// Reads such a file back. False with a reason in `error`; nothing in it is trusted.
bool parse_certificate(std::string_view text, Certificate& certificate, std::string& error);

}  // namespace tessel::certify
