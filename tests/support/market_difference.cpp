#include "support/market_difference.h"

#include <cstdlib>

namespace tessel::testing {

namespace {

constexpr std::size_t reason_letters = 6;

// A band whose lower price is 0 means none.
receiver::Band reported_band(const receiver::Band& band) {
    return band.lower == 0 ? receiver::Band{} : band;
}

std::string name_of(const receiver::Instrument& instrument) {
    return "'" + instrument.symbol + "': ";
}

std::string text_of(const receiver::CenterQuote& quote) {
    std::string text = std::string(1, quote.center) + " " + std::to_string(quote.bid) + "x" +
                       std::to_string(quote.bid_size) + " " + std::to_string(quote.ask) + "x" +
                       std::to_string(quote.ask_size) + " " + quote.condition + " " + quote.bid_mpid + "/" +
                       quote.ask_mpid;
    for (const receiver::OddLot& order : quote.odd_lots) {
        text += std::string(" ") + order.side + std::to_string(order.price) + "x" +
                std::to_string(order.size) + order.mpid;
    }
    return text;
}

std::string text_of(const receiver::Nbbo& nbbo) {
    return std::string(1, nbbo.bid_center) + std::to_string(nbbo.bid) + "x" + std::to_string(nbbo.bid_size) +
           " " + nbbo.ask_center + std::to_string(nbbo.ask) + "x" + std::to_string(nbbo.ask_size);
}

std::string text_of(const receiver::BestOddLot& best) {
    if (!best.present) {
        return "none";
    }
    return std::string(1, best.bid_center) + std::to_string(best.bid) + "x" + std::to_string(best.bid_size) +
           best.bid_mpid + " " + best.ask_center + std::to_string(best.ask) + "x" +
           std::to_string(best.ask_size) + best.ask_mpid;
}

std::string text_of(const receiver::Band& band) {
    return std::string(1, band.indicator) + " " + std::to_string(band.lower) + " " +
           std::to_string(band.upper);
}

std::string differs(const receiver::Instrument& instrument, const char* what, const std::string& expected,
                    const std::string& got) {
    return name_of(instrument) + what + ": expected " + expected + ", got " + got;
}

std::string quotes_difference(const receiver::Instrument& whole, const receiver::Instrument& joined) {
    if (whole.quotes.size() != joined.quotes.size()) {
        return differs(whole, "number of centers", std::to_string(whole.quotes.size()),
                       std::to_string(joined.quotes.size()));
    }
    for (std::size_t i = 0; i < whole.quotes.size(); ++i) {
        if (!(whole.quotes[i] == joined.quotes[i])) {
            return differs(whole, "quote", text_of(whole.quotes[i]), text_of(joined.quotes[i]));
        }
    }
    return {};
}

std::string status_difference(const receiver::Instrument& whole, const receiver::Instrument& joined) {
    if (whole.status != joined.status) {
        return differs(whole, "status", std::string(1, whole.status), std::string(1, joined.status));
    }
    if (whole.status == 'T' && joined.action_sequence == 0) {
        return {};
    }
    if (whole.reason != joined.reason) {
        return differs(whole, "reason", whole.reason, joined.reason);
    }
    if (whole.action_sequence != joined.action_sequence) {
        return differs(whole, "action number", std::to_string(whole.action_sequence),
                       std::to_string(joined.action_sequence));
    }
    return {};
}

std::string instrument_difference(const receiver::Instrument& whole, const receiver::Instrument& joined) {
    if (whole.symbol != joined.symbol || whole.secid != joined.secid || whole.indicator != joined.indicator) {
        return differs(whole, "directory", std::to_string(whole.secid) + whole.indicator,
                       joined.symbol + " " + std::to_string(joined.secid) + joined.indicator);
    }
    if (std::string found = quotes_difference(whole, joined); !found.empty()) {
        return found;
    }
    if (!(whole.nbbo == joined.nbbo)) {
        return differs(whole, "NBBO", text_of(whole.nbbo), text_of(joined.nbbo));
    }
    if (!(whole.best_odd_lot == joined.best_odd_lot)) {
        return differs(whole, "best odd-lot quote", text_of(whole.best_odd_lot),
                       text_of(joined.best_odd_lot));
    }
    if (!(reported_band(whole.band) == reported_band(joined.band))) {
        return differs(whole, "band", text_of(whole.band), text_of(joined.band));
    }
    return status_difference(whole, joined);
}

// The feed's own quote of a center in the listener's terms.
receiver::CenterQuote reported_quote(const ParticipantQuote& quote) {
    receiver::CenterQuote reported;
    reported.center = quote.market_center;
    reported.present = quote.bid != 0 || quote.ask != 0;
    reported.bid = quote.bid;
    reported.ask = quote.ask;
    reported.bid_size = quote.bid_size;
    reported.ask_size = quote.ask_size;
    reported.condition = quote.condition;
    const bool is_adf = quote.market_center == 'D';
    if (quote.has_mpids) {
        reported.bid_mpid = adf_bid_mpid;
        reported.ask_mpid = adf_ask_mpid;
    }
    if (quote.has_odd_lots) {
        reported.odd_lots.push_back({quote.market_center, 'B', quote.odd_bid, quote.odd_bid_size,
                                     std::string(is_adf ? adf_bid_mpid : std::string_view())});
        reported.odd_lots.push_back({quote.market_center, 'A', quote.odd_ask, quote.odd_ask_size,
                                     std::string(is_adf ? adf_ask_mpid : std::string_view())});
    }
    return reported;
}

// Everything of an instrument that a receiver can know, from the feed's own record.
receiver::Instrument reported_instrument(const Instrument& own) {
    receiver::Instrument reported;
    reported.symbol = own.symbol.substr(0, 11);
    reported.secid = own.secid;
    reported.indicator = own.indicator;
    for (std::size_t slot = 0; slot < own.quote_slots; ++slot) {
        if (own.quotes[slot].quoted) {
            reported.quotes.push_back(reported_quote(own.quotes[slot]));
        }
    }
    reported.nbbo = {own.nbbo.bid,
                     own.nbbo.ask,
                     own.nbbo.bid_size,
                     own.nbbo.ask_size,
                     own.nbbo.bid_market_center,
                     own.nbbo.ask_market_center};
    if (own.has_best_odd_lot) {
        reported.best_odd_lot = {
            true,
            own.best_odd_lot.bid_market_center,
            own.best_odd_lot.ask_market_center,
            own.best_odd_lot.bid,
            own.best_odd_lot.ask,
            static_cast<std::uint16_t>(own.best_odd_lot.bid_size),
            static_cast<std::uint16_t>(own.best_odd_lot.ask_size),
            std::string(own.best_odd_lot.bid_market_center == 'D' ? adf_bid_mpid : std::string_view()),
            std::string(own.best_odd_lot.ask_market_center == 'D' ? adf_ask_mpid : std::string_view())};
    }
    reported.band = {own.band_indicator, own.luld_lower, own.luld_upper};
    reported.status = own.status;
    reported.reason = own.halt_reason.substr(0, reason_letters);
    reported.action_sequence = own.action_seq;
    return reported;
}

}  // namespace

std::string joiner_difference(const receiver::Market& whole, const receiver::Market& joined) {
    if (whole.day_started != joined.day_started || whole.open_centers != joined.open_centers ||
        whole.decline_levels != joined.decline_levels) {
        return "start of day, open centers or decline levels";
    }
    if (whole.instruments.size() != joined.instruments.size()) {
        return "instruments: expected " + std::to_string(whole.instruments.size()) + ", got " +
               std::to_string(joined.instruments.size());
    }
    for (std::size_t i = 0; i < whole.instruments.size(); ++i) {
        if (std::string found = instrument_difference(whole.instruments[i], joined.instruments[i]);
            !found.empty()) {
            return found;
        }
    }
    return {};
}

std::string engine_difference(const SipEngine& engine, const receiver::Market& whole) {
    if (engine.instruments.size() != whole.instruments.size()) {
        return "instruments: expected " + std::to_string(engine.instruments.size()) + ", got " +
               std::to_string(whole.instruments.size());
    }
    for (std::size_t i = 0; i < engine.instruments.size(); ++i) {
        if (std::string found =
                instrument_difference(reported_instrument(engine.instruments[i]), whole.instruments[i]);
            !found.empty()) {
            return found;
        }
    }
    return {};
}

std::string apply_spin(receiver::Market& market, const SpinBuffer& spin) {
    for (const std::span<const unsigned char> message : spin_messages(spin)) {
        receiver::apply_message(market, message.data(), message.size(), 0);
    }
    return market.undecoded == 0 ? std::string() : "a spin message does not decode: " + market.last_error;
}

}  // namespace tessel::testing
