#include "engine/circuit_breaker.h"

#include "engine/halts.h"
#include "engine/publication.h"
#include "wire/admin_messages.h"

#include <string>
#include <string_view>

namespace tessel {

namespace {

constexpr std::uint32_t breaker_halt_seconds = 5;  // of levels 1 and 2
constexpr std::uint32_t level_without_end = 3;

std::string_view breaker_reason(std::uint32_t level) {
    return level == 1 ? "MWC1" : level == 2 ? "MWC2" : "MWC3";
}

}  // namespace

void breach_mwcb(SipEngine& engine, std::uint32_t level) {
    const std::uint64_t participant_time = wall_ns(*engine.clock);
    const std::uint64_t sip_time = wall_ns(*engine.clock);
    build_mwcb_status(engine.writer, {sip_time, participant_time}, level);
    const std::uint64_t sequence = publish_message(engine);
    ++engine.scenario->stats.mwcb;
    write_mwcb_line(engine.truth, sequence, level);
    announce(engine, "MWCB level " + std::to_string(level) + " breached");
    const std::uint32_t seconds = level < level_without_end ? breaker_halt_seconds : 0;
    for (Instrument& instrument : engine.instruments) {
        if (!is_stopped(instrument)) {
            halt_instrument(engine, instrument, breaker_reason(level), seconds);
        }
    }
    flush_messages(engine);
}

}  // namespace tessel
