#pragma once

#include "judge/line_reader.h"
#include "judge/line_source.h"
#include "judge/runs.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tessel::judge {

// Times that are read ahead of the truth line that is due: TIMES may be out of order by this many lines.
inline constexpr std::size_t times_ahead_max = 32'768;

// A file of SIP times, a line a message: {"seq":N,"sip":NS}, in nanoseconds since the epoch. It may hold
// several runs, which are paired with the truth's from the end.
struct TimesFile {
    LineSource source;
    FileRuns found;
    std::map<std::uint64_t, std::uint64_t> ahead;  // SIP times by sequence number
    bool ended = true;
    Line scratch;
};

// Opens the file and finds its runs. False with the name and a reason in `error`.
bool open_times(TimesFile& times, const std::string& path, const std::vector<Run>& truth, std::string& error);

// Begins with the run that is `runs_from_end` before the file's last one; without such a run there are no
// times.
bool begin_times(TimesFile& times, std::size_t runs_from_end, std::string& error);

// The SIP time of a message, 0 when the file has none. Numbers rise from call to call. False with "FILE:LINE:
// reason" in `error` at an invalid line.
bool find_time(TimesFile& times, std::uint64_t seq, std::uint64_t& sip_ns, std::string& error);

}  // namespace tessel::judge
