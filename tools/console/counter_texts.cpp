#include "console/counter_texts.h"

namespace tessel::console {

namespace {

constexpr CounterText texts[] = {
    {"quotes", "Quotes of market centers published"},
    {"adf_quotes", "Of the quotes: those of the ADF (market center D)"},
    {"nbbo_changes", "Changes of a national best bid and offer"},
    {"sip_generated", "Quotes that the processor made itself, such as those that empty a wiped-out center"},
    {"trades", "Trade reports published"},
    {"exchange_prints", "Of the trades: those on an exchange"},
    {"trf_prints", "Of the trades: those off exchange, reported through a TRF"},
    {"cross_prints", "Of the trades: opening and closing crosses and official closes"},
    {"odd_lot_prints", "Of the trades: those of fewer than 100 shares"},
    {"sweeps", "Of the trades: those marked as part of an intermarket sweep"},
    {"cancels", "Trades canceled"},
    {"errors", "Trades reported as errors"},
    {"corrections", "Trades corrected"},
    {"asofs", "As-of trades reported"},
    {"bands", "Limit Up-Limit Down price bands published"},
    {"halts", "Trading halts"},
    {"pauses", "LULD trading pauses"},
    {"quote_resumes", "Resumptions of quotation after a halt or pause"},
    {"trade_resumes", "Resumptions of trading"},
    {"mwcb", "Breaches of the market-wide circuit breaker"},
    {"collars", "Auction collars published with LULD pauses"},
    {"wipeouts", "Wipe-outs of a market center's quotes"},
    {"snapshots", "Snap-Shot spins made for late joiners"},
    {"snapshot_rejects", "Logins that the Snap-Shot service rejected"},
};

}  // namespace

std::span<const CounterText> counter_texts() {
    return texts;
}

}  // namespace tessel::console
