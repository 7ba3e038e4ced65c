#pragma once

#include "judge/line_reader.h"
#include "judge/runs.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel::judge {

// How far OUTPUT may be out of order: so many of its lines are held while the one that is due is looked for.
inline constexpr std::size_t window_lines_max = 16'384;
inline constexpr std::size_t window_bytes_max = 64U << 20;

// The differences that are kept: enough for the page's table, the text report shows the first ten.
inline constexpr std::size_t differences_kept_max = 100;
inline constexpr std::size_t differences_printed_max = 10;
// A line in a difference is cut beyond this; a feed's longest truth line is a quarter of it.
inline constexpr std::size_t shown_bytes_max = 4'000;

inline constexpr std::size_t buckets_per_run = 60;
// Runs that get a chart of their own; of the others only the figures are kept.
inline constexpr std::size_t charted_runs_max = 8;

struct Options {
    std::string truth_path;
    std::string output_path;
    std::uint64_t run = 0;    // judge against this run of the truth only, the first is 1; 0: see `judge`
    bool from_first = false;  // judge from OUTPUT's lowest sequence number on (a handler that joined late)
    bool to_last = false;     // judge up to OUTPUT's highest sequence number (a handler that left early)
};

struct MemberCount {
    std::uint64_t compared = 0;
    std::uint64_t mismatched = 0;
};

enum class DifferenceKind : std::uint8_t { mismatched, missing, unexpected };

// One thing that OUTPUT has other than the truth. A stretch of missing lines is one difference.
struct Difference {
    DifferenceKind kind = DifferenceKind::mismatched;
    std::size_t run = 0;  // of the truth, the first is 1; 0 for lines that belong to no run of the truth
    std::uint64_t seq = 0;
    std::uint64_t seq_last = 0;  // of a stretch of missing lines, else seq
    std::uint64_t lines = 1;
    std::string reason;            // of an unexpected line
    std::uint32_t members = 0;     // of a mismatched line: bit i stands for member i
    std::uint64_t truth_line = 0;  // line numbers in the files, 0 when there is none
    std::uint64_t output_line = 0;
    std::string truth_text;  // the first one's, of a stretch
    std::string output_text;
};

struct Bucket {
    std::uint64_t missing = 0;
    std::uint64_t mismatched = 0;
    std::uint64_t unexpected = 0;
};

struct Figures {
    std::uint64_t truth_lines = 0;   // judged ones, marks not counted
    std::uint64_t output_lines = 0;  // marks not counted
    std::uint64_t matched = 0;       // truth lines whose OUTPUT line agrees in every member given
    std::uint64_t mismatched = 0;    // truth lines whose OUTPUT line does not
    std::uint64_t missing = 0;       // truth lines without an OUTPUT line
    std::uint64_t unexpected =
        0;                       // OUTPUT lines without a truth line of their own; the sum of the three below
    std::uint64_t repeated = 0;  // the truth line had its OUTPUT line already
    std::uint64_t unknown = 0;   // no truth line has the sequence number
    std::uint64_t too_late = 0;  // further out of order than the window reaches
    std::uint64_t left_out =
        0;  // truth lines before OUTPUT's first or behind its last, when that was asked for
    std::uint64_t longest_missing = 0;  // the most missing truth lines in a row, and where they stand
    std::uint64_t longest_missing_first = 0;
    std::uint64_t longest_missing_last = 0;
};

struct RunResult {
    std::size_t truth_run = 0;  // its number in the truth, 0 when OUTPUT has a run too many
    Run truth;
    Run output;  // lines = 0 when OUTPUT has nothing for it
    Figures figures;
    std::vector<Bucket>
        buckets;  // truth.lowest .. truth.highest in equal parts; empty beyond charted_runs_max
};

struct Result {
    std::size_t truth_runs = 0;   // in the file
    std::size_t output_runs = 0;  // as told apart
    std::uint64_t truth_marks = 0;
    Figures figures;  // over all judged runs
    std::array<MemberCount, member_count> members{};
    std::vector<RunResult> runs;
    std::vector<Difference> differences;  // the first ones
    std::uint64_t differences_found = 0;
    std::vector<std::string> foreign;  // names in OUTPUT that no truth line has (the first few)
};

// Compares OUTPUT with the truth; both files are streamed, so memory does not grow with them. False with
// "FILE:LINE: reason" in `error` when one cannot be read or has a line that is none.
//
// Runs are paired from the end: OUTPUT's last run with the truth's last one and so on back. So a handler that
// was started for the last of three runs is judged against that one alone. Runs of the truth before OUTPUT's
// first are not judged; runs of OUTPUT that the truth does not have are unexpected line by line. An OUTPUT
// without lines misses the truth's last run.
bool judge(const Options& options, Result& result, std::string* error);

// Whether everything judged agrees: nothing mismatched, missing or unexpected.
bool agrees(const Result& result);

}  // namespace tessel::judge
