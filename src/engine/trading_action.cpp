#include "engine/trading_action.h"

#include "engine/publication.h"
#include "output/quote_line.h"
#include "wire/admin_messages.h"

#include <string>

namespace tessel {

void send_trading_action(SipEngine& engine, Instrument& instrument, char action, std::string_view reason,
                         std::uint64_t time_ns) {
    ++instrument.action_seq;
    instrument.status = action;
    // The reason may be the instrument's own, repeated: keep a copy before it is set.
    const std::string kept_reason(reason);
    instrument.halt_reason = kept_reason;
    const AdminTimes times{wall_ns(*engine.clock), time_ns};
    build_trading_action(engine.writer, times, wire_symbol(instrument), action, instrument.action_seq,
                         time_ns, instrument.halt_reason);
    const std::uint64_t sequence = publish_message(engine);
    write_action_line(engine.truth, instrument, sequence, action, kept_reason);
}

}  // namespace tessel
