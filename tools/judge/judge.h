#pragma once

#include "judge/latency.h"
#include "judge/line_reader.h"
#include "judge/line_source.h"
#include "judge/runs.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel::judge {

// How far OUTPUT may be out of order: this many of its lines are held while the line that is due is searched
// for.
inline constexpr std::size_t window_lines_max = 16'384;
inline constexpr std::size_t window_bytes_max = 64U << 20;

// The differences that are kept: enough for the page's table, the text report shows the first ten.
inline constexpr std::size_t differences_kept_max = 100;
inline constexpr std::size_t differences_printed_max = 10;
// A line in a difference is cut beyond this; a feed's longest truth line is a quarter of it.
inline constexpr std::size_t shown_bytes_max = 4'000;

// One example is kept for each member and symbol, up to this number, its values cut beyond these bytes.
inline constexpr std::size_t examples_kept_max = 10'000;
inline constexpr std::size_t example_value_bytes_max = 1'000;

// Names that no truth line has; further ones are only said to exist.
inline constexpr std::size_t unknown_members_kept_max = 100;
inline constexpr std::size_t unknown_member_bytes_max = 100;

inline constexpr std::size_t buckets_per_run = 60;
// Runs that get a chart each; of the others only the totals are kept.
inline constexpr std::size_t charted_runs_max = 8;

inline constexpr std::size_t jobs_max = 256;

struct Options {
    std::string truth_path;
    std::string output_path;
    std::uint64_t run = 0;    // judge against this run of the truth only, the first is 1; 0: see `judge`
    bool from_first = false;  // judge from OUTPUT's lowest sequence number on (a handler that joined late)
    bool to_last = false;     // judge up to OUTPUT's highest sequence number (a handler that left early)
    std::size_t jobs = 1;     // threads that compare lines; the result does not depend on it
    std::vector<std::string> about;  // shown at the head of every report
    // Members with times of the handler, and the file of SIP times that they are compared with; both or none.
    std::vector<std::string> latency_members;
    std::string times_path;
};

// Members that latencies are taken from at most.
inline constexpr std::size_t latency_members_max = 8;

struct MemberCount {
    std::uint64_t compared = 0;
    std::uint64_t mismatched = 0;
};

enum class DifferenceKind : std::uint8_t { mismatched, missing, unexpected };

// One difference between OUTPUT and the truth log. A stretch of missing lines is one difference.
struct Difference {
    DifferenceKind kind = DifferenceKind::mismatched;
    bool in_gap = false;  // of a mismatched line: see MemberDifference
    std::size_t run = 0;  // of the truth, the first is 1; 0 for lines that belong to no run of the truth
    std::uint64_t seq = 0;
    std::uint64_t seq_last = 0;  // of a stretch of missing lines, otherwise seq
    std::uint64_t lines = 1;
    std::string reason;            // of an unexpected line
    std::uint32_t members = 0;     // of a mismatched line: bit i means member i
    std::uint64_t truth_line = 0;  // line numbers in the files, 0 when there is none
    std::uint64_t output_line = 0;
    std::string truth_text;  // the first one's, of a stretch
    std::string output_text;
};

// The first mismatch of one member of one symbol.
struct MemberDifference {
    std::size_t run = 0;
    std::uint64_t seq = 0;
    std::string symbol;  // its JSON text in the truth line, "" when the line has none
    std::size_t member = 0;
    std::string truth;  // JSON texts; "" when the truth line does not have the member
    std::string output;
    // A line with a smaller number of the same run comes later in OUTPUT, or never: the handler had a gap
    // open.
    bool in_gap = false;
    std::uint64_t lines = 1;  // mismatches of this member and symbol
};

struct Bucket {
    std::uint64_t missing = 0;
    std::uint64_t mismatched = 0;
    std::uint64_t unexpected = 0;
};

struct Totals {
    std::uint64_t truth_lines = 0;      // judged ones, marks not counted
    std::uint64_t output_lines = 0;     // marks not counted
    std::uint64_t matched = 0;          // truth lines whose OUTPUT line agrees in every member given
    std::uint64_t mismatched = 0;       // truth lines whose OUTPUT line does not
    std::uint64_t missing = 0;          // truth lines without an OUTPUT line
    std::uint64_t unexpected = 0;       // OUTPUT lines without a truth line; the sum of the three below
    std::uint64_t repeated = 0;         // the truth line had its OUTPUT line already
    std::uint64_t unknown = 0;          // no truth line has the sequence number
    std::uint64_t too_late = 0;         // further out of order than the window reaches
    std::uint64_t left_out = 0;         // truth lines before OUTPUT's first or after its last, when asked for
    std::uint64_t torn = 0;             // OUTPUT lines for a truth line that is torn
    std::uint64_t longest_missing = 0;  // the most missing truth lines in a row, and their numbers
    std::uint64_t longest_missing_first = 0;
    std::uint64_t longest_missing_last = 0;
};

struct RunResult {
    std::size_t truth_run = 0;  // its number in the truth, 0 for a run of OUTPUT that the truth does not have
    bool is_repeat = false;     // of OUTPUT: its lines are those of another run of OUTPUT
    Run truth;
    Run output;  // without lines when OUTPUT has none for it
    Totals totals;
    // truth.lowest .. truth.highest in equal parts; empty beyond charted_runs_max.
    std::vector<Bucket> buckets;
    std::vector<std::uint64_t> torn_numbers;  // sequence numbers of the truth's torn lines
};

struct TornLineAt {
    std::string file;
    TornLine line;
};

struct Result {
    std::size_t truth_runs = 0;              // in the file
    std::size_t output_runs = 0;             // as recognized
    std::size_t output_runs_not_judged = 0;  // the truth has one run, and these are not it
    std::size_t output_run = 0;  // the judged one of several when the truth has one, the first is 1
    std::uint64_t truth_marks = 0;
    Totals totals;  // over all judged runs
    std::array<MemberCount, member_count> members{};
    std::vector<RunResult> runs;
    std::vector<Difference> differences;  // the first ones; mismatched lines as examples of `examples` only
    std::uint64_t differences_found = 0;
    std::vector<MemberDifference> examples;  // one a member and symbol, in the order of their appearance
    bool more_examples = false;
    std::vector<std::string> unknown_members;  // names in OUTPUT that no truth line has
    bool more_unknown_members = false;
    bool known_members = false;  // an OUTPUT line gives a member that truth lines have
    std::vector<TornLineAt> torn_lines;
    std::vector<LatencyResult> latencies;  // in the order of Options::latency_members
};

enum class Verdict : std::uint8_t { agrees, differs, nothing_compared };

// Compares OUTPUT with the truth; both files are streamed, so memory does not grow with them. False with
// "FILE:LINE: reason" in `error` when one cannot be read or has an invalid line.
//
// Runs are paired from the end: OUTPUT's last run with the truth's last one and so on. So a handler that was
// started for the last of three runs is judged against that one alone. Runs of the truth before OUTPUT's
// first are not judged; runs of OUTPUT that the truth does not have are unexpected line by line. When the
// truth has a single run and OUTPUT several, the one that agrees best is judged; the others are not, except
// those that are the same run again, which are unexpected. An OUTPUT without lines misses the truth's last
// run.
bool judge(const Options& options, Result& result, std::string& error);

// The same for inputs that are open already.
bool judge_sources(const Options& options, LineSource& truth, LineSource& output, Result& result,
                   std::string& error);

// Agrees: everything judged agrees, nothing is mismatched, missing or unexpected. Nothing compared: OUTPUT's
// lines give members, but none that truth lines have.
Verdict verdict(const Result& result);

}  // namespace tessel::judge
