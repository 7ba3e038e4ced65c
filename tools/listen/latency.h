#pragma once

#include "base/latency_histogram.h"

#include <array>
#include <cstdint>
#include <string>

// What --latency measures: how long a message takes from its SIP time to the kernel's receive stamp, and from
// there until it is taken, which is when the sequencer hands it out in order.
namespace tessel::listen {

enum class LatencyStage : std::uint8_t { sip_to_kernel, kernel_to_taken };

constexpr std::size_t latency_stages = 2;

struct LatencyRecord {
    LatencyHistogram whole;   // since the beginning
    LatencyHistogram second;  // since the last report
};

struct Latency {
    std::array<LatencyRecord, latency_stages> stages;
    std::uint64_t negative = 0;     // messages that arrived before their SIP time: the clocks differ
    std::uint64_t start_ns = 0;     // since the epoch; 0: no message yet
    std::uint64_t interval_ns = 0;  // when the current second began
    std::string directory;          // for the files; empty: none
    std::string error;              // the first failure of a file
};

// Empties the files of an earlier measurement. False with the reason in `latency.error`.
bool prepare_latency(Latency& latency, const std::string& directory);

// One message, all in nanoseconds since the epoch. `taken_ns` 0: it was not received, but read from a
// capture.
void note_latency(Latency& latency, std::uint64_t sip_ns, std::uint64_t kernel_ns, std::uint64_t taken_ns);

// Reports the percentiles of the second that is over, when there is one, and writes it to the interval log.
void report_latency_second(Latency& latency, std::uint64_t now_ns);

// Ends the last second, reports the percentiles of the whole and writes the files.
void finish_latency(Latency& latency, std::uint64_t now_ns);

}  // namespace tessel::listen
