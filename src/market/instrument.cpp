#include "market/instrument.h"

#include "base/parse_number.h"

#include <algorithm>
#include <utility>

namespace tessel {

namespace {

constexpr double price_when_none = 100.0;
constexpr std::size_t wire_symbol_bytes = 11;

bool make_instrument(std::string_view entry, std::size_t position, Instrument& instrument,
                     std::string& error) {
    const std::size_t colon = entry.find(':');
    instrument.symbol = entry.substr(0, colon);
    instrument.price = price_when_none;
    if (colon != std::string_view::npos &&
        !to_stod(std::string(entry.substr(colon + 1)), instrument.price, error)) {
        return false;
    }
    instrument.secid = static_cast<std::uint16_t>(position + 1);
    instrument.symbol_length =
        static_cast<std::uint8_t>(std::min<std::size_t>(instrument.symbol.size(), UINT8_MAX));
    instrument.padded_symbol.fill(' ');
    instrument.symbol.copy(instrument.padded_symbol.data(), wire_symbol_bytes);
    return true;
}

}  // namespace

std::int64_t price_to_cents(double price) {
    const double cents = price * 100.0;
    constexpr auto limit = static_cast<double>(price_cents_max);
    if (!(cents > -limit && cents < limit)) [[unlikely]] {
        if (cents != cents) {
            return 0;
        }
        return cents > 0 ? price_cents_max : -price_cents_max;
    }
    // Half away from zero. The difference is exact, so this is what llround gives, without the call.
    const auto whole = static_cast<std::int64_t>(cents);
    const double rest = cents - static_cast<double>(whole);
    return whole + (rest >= 0.5 ? 1 : 0) - (rest <= -0.5 ? 1 : 0);
}

bool build_instruments(std::string_view symbols_text, InstrumentList& instruments, std::string& error) {
    std::size_t start = 0;
    while (start < symbols_text.size()) {
        std::size_t comma = symbols_text.find(',', start);
        if (comma == std::string_view::npos) {
            comma = symbols_text.size();
        }
        Instrument instrument;
        if (!make_instrument(symbols_text.substr(start, comma - start), instruments.size(), instrument,
                             error)) {
            return false;
        }
        instruments.push_back(std::move(instrument));
        start = comma + 1;
    }
    return true;
}

const ParticipantQuote* find_quote(const Instrument& instrument, char market_center) {
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        if (instrument.quotes[slot].market_center == market_center) {
            return &instrument.quotes[slot];
        }
    }
    return nullptr;
}

ParticipantQuote* find_quote(Instrument& instrument, char market_center) {
    return const_cast<ParticipantQuote*>(find_quote(std::as_const(instrument), market_center));
}

std::int64_t reference_price(const Instrument& instrument) {
    return price_to_cents(instrument.price) * cent;
}

std::int64_t cross_price(const Instrument& instrument) {
    if (instrument.nbbo.bid != 0 && instrument.nbbo.ask != 0) {
        return (instrument.nbbo.bid + instrument.nbbo.ask) / (2 * cent) * cent;
    }
    return reference_price(instrument);
}

}  // namespace tessel
