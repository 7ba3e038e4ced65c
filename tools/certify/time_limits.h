#pragma once

#include <cstdint>

// How long things may take. Limits are for an idle machine and grow with the load of the one at hand.
namespace tessel::certify {

inline constexpr double time_scale_max = 10;

// The factor for limits, 1 to 10: TESSEL_TIME_SCALE, or the number of processes that wait for each processor
// now.
double time_scale();

// A limit for this machine, for limits that only a failure reaches.
double scaled(double seconds);

// Seconds on the steady clock.
double steady_seconds();

}  // namespace tessel::certify
