#include "base/clock.h"

#include <ctime>

namespace tessel {

namespace {

std::uint64_t read_ns(clockid_t which) {
    timespec now{};
    clock_gettime(which, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::uint64_t wall_ns(Clock& clock) {
    if (clock.simulated) [[unlikely]] {
        const std::uint64_t now = clock.simulated_wall_ns;
        clock.simulated_wall_ns += clock.wall_step_ns;
        return now;
    }
    return read_ns(CLOCK_REALTIME);
}

std::uint64_t steady_ms(const Clock& clock) {
    if (clock.simulated) [[unlikely]] {
        return clock.simulated_steady_ms;
    }
    return steady_ms();
}

std::uint64_t steady_ms() {
    return read_ns(CLOCK_MONOTONIC) / 1'000'000u;
}

}  // namespace tessel
