#include "engine/quote_record.h"

#include "market/luld_indicator.h"

namespace tessel {

void set_quote_part(QuoteRecord& record, const Instrument& instrument, const ParticipantQuote& quote,
                    std::uint64_t participant_time) {
    record.header.market_center = quote.market_center;
    record.header.participant_time = participant_time;
    record.symbol = wire_symbol(instrument);
    record.bid = quote.bid;
    record.ask = quote.ask;
    record.bid_size = quote.bid_size;
    record.ask_size = quote.ask_size;
    record.condition = quote.condition;
    record.luld_bbo = luld_bbo_indicator(instrument, quote.bid, quote.ask);
    record.adf_time = 0;
    record.adf_mpid_ind = ' ';
    if (quote.market_center == adf_market_center) {
        record.adf_time = participant_time;
        record.adf_mpid_ind = '2';
        record.bid_mpid = quote.has_mpids ? adf_bid_mpid : std::string_view();
        record.ask_mpid = quote.has_mpids ? adf_ask_mpid : std::string_view();
    }
}

void set_nbbo_part(QuoteRecord& record, const Nbbo& nbbo) {
    record.nbbo_condition = nbbo.bid != 0 && nbbo.ask != 0 ? 'R' : 'Y';
    record.nbbo_bid_market_center = nbbo.bid_market_center;
    record.nbbo_ask_market_center = nbbo.ask_market_center;
    record.nbbo_bid = nbbo.bid;
    record.nbbo_ask = nbbo.ask;
    record.nbbo_bid_size = nbbo.bid_size;
    record.nbbo_ask_size = nbbo.ask_size;
}

void set_best_odd_lot_part(QuoteRecord& record, const BestOddLot& best) {
    record.odd_bid_market_center = best.bid_market_center;
    record.odd_ask_market_center = best.ask_market_center;
    record.odd_bid = best.bid;
    record.odd_ask = best.ask;
    record.odd_bid_size = best.bid_size;
    record.odd_ask_size = best.ask_size;
    record.odd_bid_mpid = best.bid_market_center == adf_market_center ? adf_bid_mpid : std::string_view();
    record.odd_ask_mpid = best.ask_market_center == adf_market_center ? adf_ask_mpid : std::string_view();
}

bool has_mpids(const BestOddLot& best) {
    return best.bid_market_center == adf_market_center || best.ask_market_center == adf_market_center;
}

bool is_whole_nbbo(const ParticipantQuote& quote, const Nbbo& nbbo) {
    // Both sides are asked for: a center named ' ' would otherwise match a missing side.
    return nbbo.bid != 0 && nbbo.ask != 0 && nbbo.bid_market_center == quote.market_center &&
           nbbo.ask_market_center == quote.market_center && quote.bid == nbbo.bid && quote.ask == nbbo.ask &&
           quote.bid_size == nbbo.bid_size && quote.ask_size == nbbo.ask_size;
}

std::size_t list_odd_lots(const ParticipantQuote& quote, OddLotList& list) {
    if (!quote.has_odd_lots) {
        return 0;
    }
    const bool is_adf = quote.market_center == adf_market_center;
    list[0] = {quote.market_center, 'B', quote.odd_bid, quote.odd_bid_size,
               is_adf ? adf_bid_mpid : std::string_view()};
    list[1] = {quote.market_center, 'A', quote.odd_ask, quote.odd_ask_size,
               is_adf ? adf_ask_mpid : std::string_view()};
    return 2;
}

}  // namespace tessel
