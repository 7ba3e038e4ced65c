#pragma once

#include "capture/options.h"

namespace tessel::capture {

// What every reading of the clock inside one pass of the feed adds: about what such a reading takes. A tick
// of ten thousand symbols reads it some 25,000 times and so ends half a millisecond after it began.
constexpr std::uint64_t reading_ns = 20;

// A tick of --interval-ms 0: as often as a live feed without anything to do looks around.
constexpr std::int32_t shortest_interval_ms = 5;

// Makes the run and writes its files. What there is to say goes to standard error.
ExitStatus make_capture(const Options& options);

}  // namespace tessel::capture
