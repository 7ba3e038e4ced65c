#include "certify/time_limits.h"

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace tessel::certify {

double time_scale() {
    double scale = 1;
    if (const char* const text = std::getenv("TESSEL_TIME_SCALE")) {
        scale = std::strtod(text, nullptr);
    } else {
        double load = 0;
        const auto processors = static_cast<double>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
        scale = getloadavg(&load, 1) == 1 ? load / processors : 1;
    }
    // Not a number is no factor either.
    return scale >= 1 ? std::min(scale, time_scale_max) : 1;
}

double scaled(double seconds) {
    return seconds * time_scale();
}

double steady_seconds() {
    const std::chrono::duration<double> since = std::chrono::steady_clock::now().time_since_epoch();
    return since.count();
}

}  // namespace tessel::certify
