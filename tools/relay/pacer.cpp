#include "relay/pacer.h"

#include <algorithm>
#include <cmath>

namespace tessel::relay {

namespace {

double rate_at(const Pacer& pacer, double elapsed_ns) {
    if (pacer.ramp_ns == 0) {
        return pacer.rate_first;
    }
    const double share = std::min(1.0, elapsed_ns / static_cast<double>(pacer.ramp_ns));
    return pacer.rate_first + (pacer.rate_last - pacer.rate_first) * share;
}

}  // namespace

Pacer make_pacer(const Options& options) {
    Pacer pacer;
    pacer.speed = options.speed;
    pacer.rate_first = options.rate_first;
    pacer.rate_last = options.rate_last;
    pacer.ramp_ns = options.ramp_ns;
    return pacer;
}

std::int64_t next_packet_ns(Pacer& pacer, std::int64_t stamp_ns, unsigned messages, std::int64_t now_ns) {
    if (!pacer.begun) {
        pacer.begun = true;
        pacer.begun_ns = now_ns;
        pacer.first_stamp_ns = stamp_ns;
    }
    if (pacer.rate_first <= 0) {
        const double since = static_cast<double>(stamp_ns - pacer.first_stamp_ns) / pacer.speed;
        return pacer.begun_ns + std::llround(std::max(0.0, since));
    }
    const std::int64_t due_ns = pacer.begun_ns + std::llround(pacer.elapsed_ns);
    pacer.elapsed_ns += static_cast<double>(messages) * 1e9 / rate_at(pacer, pacer.elapsed_ns);
    return due_ns;
}

}  // namespace tessel::relay
