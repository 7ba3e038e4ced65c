#pragma once

#include "base/latency_histogram.h"
#include "judge/line_reader.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

// How long after the SIP time of their messages a handler's lines say that something happened.
struct LatencyResult {
    std::string name;  // the member that holds the time, in nanoseconds since the epoch
    LatencyHistogram direct;
    LatencyHistogram recovered;    // messages whose line comes after one with a larger number
    std::uint64_t before_sip = 0;  // times before the SIP time: the clocks differ; not in the histograms
};

// One value for a histogram.
struct LatencySample {
    std::size_t member = 0;  // index of the latency member
    bool recovered = false;
    bool before_sip = false;
    std::uint64_t ns = 0;
};

// The value of a member that no truth line has, when it is a whole number.
bool find_nanoseconds(const Line& line, std::string_view text, std::string_view name, std::uint64_t& ns);

// The samples of one line, added to `samples`.
void take_samples(const Line& line, std::string_view text, const std::vector<std::string>& names,
                  std::uint64_t sip_ns, bool recovered, std::vector<LatencySample>& samples);

void enter_sample(std::vector<LatencyResult>& results, const LatencySample& sample);

// The percentile curves as an SVG element: the share of messages that took longer, from half to the longest
// one, against the time, both by powers of ten. Colors come from the page's style.
std::string latency_chart(const std::vector<LatencyResult>& results);

// A time for people: "12.3 us".
std::string readable_time(std::uint64_t ns);

}  // namespace tessel::judge
