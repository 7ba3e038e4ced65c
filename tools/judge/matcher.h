#pragma once

#include "judge/judge.h"
#include "judge/record_reader.h"
#include "judge/times_file.h"
#include "judge/workers.h"

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace tessel::judge {

// An OUTPUT line that came before its turn.
struct HeldLine {
    std::string text;
    std::uint64_t line_number = 0;
    bool recovered = false;
};

// A truth line that had its turn, remembered for a while to distinguish a repeated OUTPUT line from one that
// came too late.
struct PastLine {
    std::uint64_t seq = 0;
    bool found = false;
};

// Finds for each truth line the OUTPUT line of the same number, by sequence numbers alone. What has to be
// compared is put into pieces for the workers.
struct Matcher {
    const Options* options = nullptr;
    LineSource* truth = nullptr;
    LineSource* output = nullptr;
    Result* result = nullptr;
    Workers* workers = nullptr;
    Findings* findings = nullptr;
    TimesFile* times = nullptr;  // nullptr: no latencies are wanted

    RunResult* run = nullptr;                // that is judged
    std::map<std::uint64_t, HeldLine> held;  // by sequence number, each above the truth line that is due
    std::size_t held_bytes = 0;
    bool output_ended = false;
    std::deque<PastLine> past;  // rising
    Difference gap;             // the stretch of missing lines that is growing; lines = 0 when there is none
    bool any_missing = false;
    std::uint64_t latest_output_line = 0;  // of the OUTPUT lines found so far
    std::uint64_t highest_read = 0;        // of OUTPUT's numbers so far
    Line scratch;
    std::string error;
};

// Judges one run of the truth with one of OUTPUT; either may be without lines. Its findings are entered when
// this returns. False with "FILE:LINE: reason" in `matcher.error` at the first invalid line, in the order of
// judging.
bool judge_run(Matcher& matcher, RunResult& run);

}  // namespace tessel::judge
