#include "engine/wipe_out.h"

#include "engine/publication.h"
#include "engine/quotes.h"
#include "wire/admin_messages.h"

#include <string>

namespace tessel {

void wipe_out(SipEngine& engine, char participant) {
    const std::uint64_t event_time = wall_ns(*engine.clock);
    const std::uint64_t sip_time = wall_ns(*engine.clock);
    build_wipe_out(engine.writer, {sip_time, event_time}, participant);
    publish_message(engine);
    ++engine.scenario->stats.wipeouts;
    for (Instrument& instrument : engine.instruments) {
        ParticipantQuote* const quote = find_quote(instrument, participant);
        if (quote == nullptr || !quote->present) {
            continue;
        }
        quote->present = false;
        quote->bid = 0;
        quote->ask = 0;
        quote->bid_size = 0;
        quote->ask_size = 0;
        publish_quote(engine, instrument, *quote, 'E', event_time);
    }
    announce(engine, std::string("quote wipe-out of participant ") + participant);
    flush_messages(engine);
}

}  // namespace tessel
