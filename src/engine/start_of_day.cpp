#include "engine/start_of_day.h"

#include "engine/luld.h"
#include "engine/publication.h"
#include "engine/quotes.h"
#include "engine/trades.h"
#include "market/symbol_directory.h"
#include "wire/admin_messages.h"

#include <string>

namespace tessel {

namespace {

// A late joiner gets these again, byte for byte.
void retain_message(SipEngine& engine) {
    const unsigned char* const bytes = engine.writer.bytes.get();
    engine.retained_messages.emplace_back(bytes, bytes + engine.writer.size);
}

// Both directory forms share their times; the indicator reads its own.
void publish_directory(SipEngine& engine, Instrument& instrument, std::uint64_t opening_time) {
    std::string issue_name;
    const AdminTimes times{wall_ns(*engine.clock), opening_time};
    const DirectoryRecord record = fill_directory(instrument, times, issue_name);
    encode_directory(engine.writer, record, false);
    publish_message(engine);
    encode_directory(engine.writer, record, true);
    publish_message(engine);
    build_indicator(engine.writer, {wall_ns(*engine.clock), opening_time}, wire_symbol(instrument),
                    instrument.indicator);
    publish_message(engine);
}

}  // namespace

void start_of_day(SipEngine& engine) {
    const std::uint64_t opening_time = wall_ns(*engine.clock);
    build_start_of_day(engine.writer, {wall_ns(*engine.clock), opening_time});
    publish_message(engine);
    retain_message(engine);
    build_decline_levels(engine.writer, {wall_ns(*engine.clock), opening_time});
    publish_message(engine);
    for (Instrument& instrument : engine.instruments) {
        publish_directory(engine, instrument, opening_time);
        send_band(engine, instrument, 'A', opening_time);
    }
    for (const char letter : engine.participants) {
        build_session_open(engine.writer, {wall_ns(*engine.clock), opening_time}, letter);
        publish_message(engine);
        retain_message(engine);
    }
    for (Instrument& instrument : engine.instruments) {
        for (const std::uint16_t slot : engine.participant_slots) {
            update_participant_quote(engine, instrument, slot, opening_time, ' ');
        }
    }
    for (Instrument& instrument : engine.instruments) {
        opening_cross(engine, instrument, opening_time);
    }
    flush_messages(engine);
}

}  // namespace tessel
