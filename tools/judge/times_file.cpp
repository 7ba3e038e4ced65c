#include "judge/times_file.h"

#include "judge/latency.h"
#include "judge/record_reader.h"

#include <fmt/format.h>

namespace tessel::judge {

namespace {

bool read_time(TimesFile& times, std::string& error) {
    std::string_view text;
    const ReadResult read = next_line(times.source, text, error);
    if (read == ReadResult::error) {
        return false;
    }
    if (read == ReadResult::end) {
        times.ended = true;
        return true;
    }
    std::string reason;
    std::uint64_t sip_ns = 0;
    const bool good = read_line(text, times.scratch, reason);
    if (good && times.scratch.mark) {
        return true;
    }
    if (!good || !find_nanoseconds(times.scratch, text, "sip", sip_ns)) {
        error = fmt::format("{}:{}: {}", times.source.input.name, times.source.line_number,
                            good ? "no member 'sip' in nanoseconds" : reason);
        return false;
    }
    times.ahead.emplace(times.scratch.seq, sip_ns);
    return true;
}

}  // namespace

bool open_times(TimesFile& times, const std::string& path, const std::vector<Run>& truth,
                std::string& error) {
    if (!open_input(times.source.input, path, error)) {
        return false;
    }
    Input* const input = &times.source.input;
    return copy_pipes({&input, 1}, error) && start_source(times.source, error) &&
           find_output_runs(times.source, truth, times.found, error);
}

bool begin_times(TimesFile& times, std::size_t runs_from_end, std::string& error) {
    times.ahead.clear();
    times.ended = runs_from_end >= times.found.runs.size();
    if (times.ended) {
        return true;
    }
    const Run& run = times.found.runs[times.found.runs.size() - 1 - runs_from_end];
    return seek_source(times.source, run.offset, run.end_offset, run.line_number, error);
}

bool find_time(TimesFile& times, std::uint64_t seq, std::uint64_t& sip_ns, std::string& error) {
    sip_ns = 0;
    times.ahead.erase(times.ahead.begin(), times.ahead.lower_bound(seq));
    while (!times.ended && times.ahead.size() < times_ahead_max) {
        if (!read_time(times, error)) {
            return false;
        }
        // What is before the message that is due will not be asked for.
        times.ahead.erase(times.ahead.begin(), times.ahead.lower_bound(seq));
    }
    if (!times.ahead.empty() && times.ahead.begin()->first == seq) {
        sip_ns = times.ahead.begin()->second;
    }
    return true;
}

}  // namespace tessel::judge
