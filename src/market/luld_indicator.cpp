#include "market/luld_indicator.h"

namespace tessel {

char luld_bbo_indicator(const Instrument& instrument, std::int64_t bid, std::int64_t ask) {
    if (!has_active_band(instrument)) {
        return ' ';
    }
    const bool bid_above = bid > instrument.luld_upper;
    const bool ask_below = ask > 0 && ask < instrument.luld_lower;
    if (bid_above) {
        return ask_below ? 'C' : 'A';
    }
    return ask_below ? 'B' : ' ';
}

char luld_nbbo_indicator(const Instrument& instrument, const Nbbo& nbbo) {
    if (!has_active_band(instrument)) {
        return ' ';
    }
    const std::int64_t lower = instrument.luld_lower;
    const std::int64_t upper = instrument.luld_upper;
    const bool bid_at_upper = nbbo.bid >= 1 && nbbo.bid == upper;
    const bool bid_below_lower = nbbo.bid > 0 && nbbo.bid < lower;
    const bool ask_at_lower = nbbo.ask > 0 && nbbo.ask == lower;
    const bool ask_above_upper = nbbo.ask > upper;
    if (bid_at_upper) {
        return ask_at_lower ? 'I' : ask_above_upper ? 'G' : 'E';
    }
    if (ask_at_lower) {
        return bid_below_lower ? 'H' : 'F';
    }
    if (ask_above_upper) {
        return bid_below_lower ? 'D' : 'C';
    }
    return bid_below_lower ? 'B' : 'A';
}

}  // namespace tessel
