#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// Price band of 5 % on each side of a reference price, cut to whole cents toward zero.
struct Band {
    std::int64_t reference = 0;
    std::int64_t lower = 0;
    std::int64_t upper = 0;
};

Band band_around(std::int64_t reference);

// Publishes the instrument's band under an indicator letter: recomputed from the reference price, but with
// 'D' (deactivated) as stored.
void send_band(SipEngine& engine, Instrument& instrument, char indicator, std::uint64_t time_ns);

// Whether the price has moved 1 % or more from the band's reference.
bool band_is_stale(const Instrument& instrument);

// LULD trading pause with a collar; quotation resumes by itself after `seconds`, never when that is 0.
void luld_pause(SipEngine& engine, Instrument& instrument, std::uint32_t seconds);

}  // namespace tessel
