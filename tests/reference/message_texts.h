#pragma once

#include <string_view>

// What the message reference says of each kind of message in words.
namespace tessel::reference {

struct MessageText {
    std::string_view kind;
    std::string_view purpose;  // one sentence
    std::string_view sent;     // when the feed sends it
    std::string_view truth;    // the line of the truth log that it causes
};

// clang-format off
inline constexpr MessageText message_texts[] = {
    {"quote_short", "One market center's quote for one instrument, both sides.",
     "Whenever a market center changes its quote and everything fits the short fields: the market center "
     "is not D, the symbol has at most 5 letters, prices are whole cents from 0 to 655.35, sizes are at "
     "most 65,534, and no appendage needs its long form. A quote replaces the market center's earlier one; "
     "price 0 means no quote on that side.",
     "A quote line: the book's levels, the NBBO, the band and the status after this message."},
    {"quote_long", "One market center's quote, with wide fields.",
     "Whenever a quote does not fit the short form, and always for the ADF (market center D). All quotes "
     "of a Snap-Shot have this form.",
     "A quote line, as for the short form; none in a Snap-Shot."},
    {"mpid_quote", "The quote of one firm at the ADF, one cent outside the ADF's own.",
     "Immediately after an ADF quote with a bid, when the number of quotes sent so far is a multiple of 7. "
     "It does not replace the ADF's quote and never counts for the NBBO.",
     "None."},
    {"odd_lots_short", "A change of a market center's odd lots alone, without prices of its quote.",
     "Never by this feed; a decoder should accept it.", "None."},
    {"odd_lots_long", "A change of a market center's odd lots alone, with wide fields.",
     "Never by this feed; a decoder should accept it.", "None."},
    {"trade_short", "A trade.",
     "For every trade whose symbol has at most 5 letters and whose price is in whole cents up to 655.35: "
     "prints of exchanges, prints of a trade reporting facility (market center D), crosses and official "
     "closes.",
     "A trade line: price, shares, market center and conditions, kind (0 exchange, 1 TRF, 2 cross) and id."},
    {"trade_long", "A trade, with a wide symbol and price.",
     "For every trade that does not fit the short form.", "A trade line, as for the short form."},
    {"cancel_error", "Takes back an earlier trade, and gives the statistics without it.",
     "After a trade, by scenario or command: for the instrument's newest live trade that is no cross, "
     "sweep or official close. Every fourth one is an error instead of a cancel. The trade is found by its "
     "market center, sub-market center and id.",
     "A cancel_error line: id, price, shares, market center and function."},
    {"correction",
     "Replaces an earlier trade by one with another price or size, and gives the statistics after it.",
     "After a trade, by scenario or command: for the instrument's newest live regular trade. The price "
     "changes by a cent or the size grows by 100 shares; the corrected trade has a new id.",
     "A correction line: both ids, the corrected price and shares, and the market center."},
    {"as_of", "A late report of a trade of the day before.",
     "By scenario or command. It changes no statistics.",
     "An asof line: price, shares, market center and conditions."},
    {"trading_action", "A change of an instrument's trading status.",
     "At each halt, pause, resumption of quotation and, 2 seconds later, resumption of trading. In a Snap- "
     "Shot, for each instrument that is not trading.",
     "A quote line with the members ah and reason; none in a Snap-Shot."},
    {"price_band", "The prices between which an instrument may trade.",
     "At the start of day, when the price has moved by 1 % of the last reference, at the end of the band's "
     "period, by command, at halts and pauses (deactivated) and when quotation resumes. In a Snap-Shot, "
     "for each instrument that has a band.",
     "A quote line with the member ap; none in a Snap-Shot."},
    {"collar", "The prices at which a paused instrument may re-open.",
     "Once for each LULD pause, after the pause's trading action. In a Snap-Shot, for each paused "
     "instrument.",
     "None."},
    {"mwcb_status", "The market as a whole has fallen to a decline level.",
     "By scenario or command; a trading halt of every trading instrument follows.",
     "A line with the member mwcb, the level."},
    {"decline_levels",
     "The index levels at which the market-wide circuit breaker acts: 7, 13 and 20 % below 5,000.",
     "Once, as the second message of a run, and in each Snap-Shot.", "None."},
    {"directory_short", "An instrument exists: its symbol and name.",
     "At the start of day, once for each instrument, and in each Snap-Shot.", "None."},
    {"directory_long", "An instrument exists: its symbol, name and trading state.",
     "Immediately after the short form.", "None."},
    {"indicator",
     "An instrument's one-letter indicator.",
     "Immediately after the long form of its directory.",
     "None."},
    {"end_of_snapshot", "The Snap-Shot is complete, and says which message it is up to.",
     "In a Snap-Shot session only, as its last message: the market is as it was after this sequence "
     "number, and the multicast stream continues with the next.",
     "None."},
    {"start_of_day", "A day begins.", "Once, as the first message of a run, and in each Snap-Shot.", "None."},
    {"session_open", "A market center opens.",
     "At the start of day, once for each market center, after the directory and bands, and in each Snap- "
     "Shot.",
     "None."},
    {"wipe_out", "Every quote of a market center is withdrawn.",
     "By command. A quote with SIP flag E and no prices follows for each instrument that the market center "
     "quoted.",
     "None; the quotes that follow have quote lines."},
};
// clang-format on

}  // namespace tessel::reference
