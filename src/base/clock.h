#pragma once

#include <cstdint>

namespace tessel {

// The only place that asks the system for the time. A clock is handed to everything that stamps or times, so
// that a test can put a simulated one there.
struct Clock {
    bool simulated = false;
    // What a simulated clock answers. Each wall reading adds wall_step_ns afterwards, so that a test can
    // distinguish the readings of one event; 0 freezes time.
    std::uint64_t simulated_wall_ns = 0;
    std::uint64_t wall_step_ns = 0;
    std::uint64_t simulated_steady_ms = 0;
};

// Wall-clock time in nanoseconds since the Unix epoch: what message time stamps carry.
std::uint64_t wall_ns(Clock& clock);

// Steady time in milliseconds (the monotonic clock's nanoseconds / 1,000,000): what timers compare.
std::uint64_t steady_ms(const Clock& clock);

// The same of the system, for programs that are never run on a simulated clock.
std::uint64_t steady_ms();

}  // namespace tessel
