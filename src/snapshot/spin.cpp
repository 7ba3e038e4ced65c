#include "snapshot/spin.h"

#include "base/byte_order.h"
#include "engine/luld.h"
#include "engine/quote_record.h"
#include "market/luld_indicator.h"
#include "market/symbol_directory.h"
#include "wire/admin_messages.h"
#include "wire/quote_messages.h"

#include <cassert>
#include <cstring>

namespace tessel {

namespace {

// More than any message with its packet's header.
constexpr std::size_t message_room = 256;
static_assert(soup_header_bytes + long_quote_bytes_max <= message_room);
static_assert(soup_header_bytes + long_directory_bytes <= message_room);

// What one instrument adds at most, its quotes aside.
constexpr std::size_t instrument_bytes_max = short_directory_bytes + long_directory_bytes + indicator_bytes +
                                             trading_action_bytes + price_band_bytes + collar_bytes +
                                             6 * soup_header_bytes;

std::size_t spin_bytes_max(const SipEngine& engine) {
    std::size_t bytes = decline_levels_bytes + end_of_snapshot_bytes + 2 * soup_header_bytes + message_room;
    for (const std::vector<unsigned char>& message : engine.retained_messages) {
        bytes += message.size() + soup_header_bytes;
    }
    return bytes + engine.instruments.size() * instrument_bytes_max +
           engine.quotes.size() * (long_quote_bytes_max + soup_header_bytes);
}

void flush_to_sink(SpinBuffer& spin) {
    assert(spin.sink.write != nullptr);
    spin.sink.write(spin.sink.context, spin.bytes.data(), spin.size);
    spin.bytes_flushed += spin.size;
    spin.size = 0;
}

// Where the next message goes, its packet's header before it: there is room for one.
unsigned char* next_message(SpinBuffer& spin) {
    if (spin.bytes.size() - spin.size < message_room) [[unlikely]] {
        flush_to_sink(spin);
    }
    return spin.bytes.data() + spin.size + soup_header_bytes;
}

// Frames the message of that length at next_message.
void frame_message(SpinBuffer& spin, std::size_t length) {
    assert(soup_header_bytes + length <= message_room);
    unsigned char* const out = spin.bytes.data() + spin.size;
    put_u16(out, 0, static_cast<std::uint16_t>(length + 1));
    put_u8(out, soup_length_bytes, soup_sequenced_data);
    spin.size += soup_header_bytes + length;
}

void append_message(SpinBuffer& spin, const unsigned char* message, std::size_t length) {
    std::memcpy(next_message(spin), message, length);
    frame_message(spin, length);
}

void append_built(SpinBuffer& spin) {
    append_message(spin, spin.writer.bytes.get(), spin.writer.size);
}

void append_directory(SpinBuffer& spin, const Instrument& instrument, AdminTimes times,
                      std::string& name_storage) {
    const DirectoryRecord record = fill_directory(instrument, times, name_storage);
    frame_message(spin, put_directory(next_message(spin), record, false));
    frame_message(spin, put_directory(next_message(spin), record, true));
    frame_message(spin,
                  put_indicator(next_message(spin), times, wire_symbol(instrument), instrument.indicator));
}

// What is the same in every quote of one instrument: the national best bid and offer and the best odd-lot
// quote as last published.
QuoteRecord fill_instrument_part(const Instrument& instrument, std::uint64_t spin_time_ns) {
    QuoteRecord record;
    record.header.sip_time = spin_time_ns;
    record.header.participant_time = spin_time_ns;
    record.symbol = wire_symbol(instrument);
    record.luld_nbbo = luld_nbbo_indicator(instrument, instrument.nbbo);
    record.nbbo_ind = '3';
    set_nbbo_part(record, instrument.nbbo);
    if (instrument.has_best_odd_lot) {
        record.odd_best_ind = has_mpids(instrument.best_odd_lot) ? '5' : '3';
        set_best_odd_lot_part(record, instrument.best_odd_lot);
    }
    return record;
}

// The NBBO appendage indicator: there is none, this quote is the whole of it, or by appendage.
char nbbo_indicator(const Instrument& instrument, const ParticipantQuote& quote) {
    if (is_none(instrument.nbbo)) {
        return '1';
    }
    return is_whole_nbbo(quote, instrument.nbbo) ? '4' : '3';
}

void append_quote(SpinBuffer& spin, QuoteRecord& record, const Instrument& instrument,
                  const ParticipantQuote& quote) {
    set_quote_part(record, instrument, quote, record.header.participant_time);
    OddLotList odd_lots;
    record.odd_lot_count = list_odd_lots(quote, odd_lots);
    record.odd_lots = odd_lots.data();
    record.odd_list_ind =
        record.odd_lot_count == 0 ? '0' : (quote.market_center == adf_market_center ? '5' : '3');
    // Put in place: these are nine tenths of a spin.
    unsigned char* const out = next_message(spin);
    record.nbbo_ind = nbbo_indicator(instrument, quote);
    frame_message(spin, put_long_quote_message(out, record));
}

void append_quotes(SpinBuffer& spin, const Instrument& instrument, std::uint64_t spin_time_ns) {
    QuoteRecord record = fill_instrument_part(instrument, spin_time_ns);
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        if (instrument.quotes[slot].quoted) {
            append_quote(spin, record, instrument, instrument.quotes[slot]);
        }
    }
}

void append_statuses(SpinBuffer& spin, const SipEngine& engine, AdminTimes times) {
    for (const Instrument& instrument : engine.instruments) {
        if (instrument.status != 'T') {
            build_trading_action(spin.writer, times, wire_symbol(instrument), instrument.status,
                                 instrument.action_seq, times.participant_time, instrument.halt_reason);
            append_built(spin);
        }
    }
}

void append_bands(SpinBuffer& spin, const SipEngine& engine, AdminTimes times) {
    for (const Instrument& instrument : engine.instruments) {
        if (instrument.luld_lower != 0) {
            const char indicator = instrument.band_indicator == ' ' ? 'B' : instrument.band_indicator;
            build_price_band(spin.writer, times, wire_symbol(instrument), indicator, times.participant_time,
                             instrument.luld_lower, instrument.luld_upper);
            append_built(spin);
        }
    }
    for (const Instrument& instrument : engine.instruments) {
        if (instrument.status == 'P') {
            const Band collar = band_around(reference_price(instrument));
            build_collar(spin.writer, times, wire_symbol(instrument), instrument.action_seq, collar.reference,
                         collar.upper, collar.lower);
            append_built(spin);
        }
    }
}

}  // namespace

void build_spin(SpinBuffer& spin, SipEngine& engine, std::uint64_t spin_time_ns) {
    const std::size_t needed = spin.sink.write != nullptr ? spin_buffer_bytes : spin_bytes_max(engine);
    if (spin.bytes.size() < needed) {
        spin.bytes.resize(needed);
    }
    spin.size = 0;
    spin.bytes_flushed = 0;
    for (const std::vector<unsigned char>& message : engine.retained_messages) {
        append_message(spin, message.data(), message.size());
    }
    const AdminTimes times{spin_time_ns, spin_time_ns};
    std::string name_storage;
    for (const Instrument& instrument : engine.instruments) {
        append_directory(spin, instrument, times, name_storage);
    }
    append_statuses(spin, engine, times);
    build_decline_levels(spin.writer, times);
    append_built(spin);
    append_bands(spin, engine, times);
    for (const Instrument& instrument : engine.instruments) {
        append_quotes(spin, instrument, spin_time_ns);
    }
    ++engine.scenario->stats.snapshots;
}

void append_end_of_snapshot(SpinBuffer& spin, std::uint64_t spin_time_ns, std::uint64_t last_sequence) {
    build_end_of_snapshot(spin.writer, spin_time_ns, last_sequence);
    append_built(spin);
    if (spin.sink.write != nullptr) {
        flush_to_sink(spin);
    }
}

std::vector<std::span<const unsigned char>> spin_messages(const SpinBuffer& spin) {
    std::vector<std::span<const unsigned char>> messages;
    std::size_t at = 0;
    while (at < spin.size) {
        const unsigned char* packet = spin.bytes.data() + at;
        const std::size_t packet_length =
            static_cast<std::size_t>(read_big_endian(packet, soup_length_bytes));
        messages.emplace_back(packet + soup_header_bytes, packet_length - 1);
        at += soup_length_bytes + packet_length;
    }
    return messages;
}

}  // namespace tessel
