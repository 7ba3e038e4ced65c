#include "receiver/market_state.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace tessel::receiver {

namespace {

constexpr std::size_t symbol_key_bytes = 16;
constexpr std::uint64_t millionths_per_share = 1'000'000;

// Sale conditions that let a trade set the last price, and that let it count for the volume; a blank always
// does.
constexpr std::string_view last_set = "@ABDFKLOSXY1569 ";
constexpr std::string_view volume_set = "@ABCDFGHIKLOPRSTUVWXYZ14567 ";

bool all_in(std::string_view conditions, std::string_view set) {
    return conditions.find_first_not_of(set) == std::string_view::npos;
}

// Symbols are at most 11 letters on the wire, so two words hold one.
std::size_t hash_symbol(std::string_view symbol) {
    unsigned char key[symbol_key_bytes] = {};
    // data() may be null when the symbol is empty, which memcpy does not allow.
    std::copy_n(symbol.data(), std::min(symbol.size(), symbol_key_bytes), key);
    std::uint64_t words[2];
    std::memcpy(words, key, sizeof words);
    std::uint64_t hash = (words[0] ^ (words[1] * 0x9e3779b97f4a7c15u)) * 0xbf58476d1ce4e5b9u;
    hash ^= hash >> 29;
    return static_cast<std::size_t>(hash);
}

// The slot that holds the symbol, or the free one where it belongs. Null for a market without slots.
const std::uint32_t* find_slot(const Market& market, std::string_view symbol) {
    if (market.slots.empty()) {
        return nullptr;
    }
    const std::size_t mask = market.slots.size() - 1;
    std::size_t at = hash_symbol(symbol) & mask;
    while (market.slots[at] != 0 && market.instruments[market.slots[at] - 1].symbol != symbol) {
        at = (at + 1) & mask;
    }
    return &market.slots[at];
}

// Makes the table twice as large and puts every name back; of a repeated name the first instrument.
void grow_slots(Market& market) {
    market.slots.assign(std::max<std::size_t>(64, market.slots.size() * 2), 0);
    for (std::size_t i = 0; i < market.instruments.size(); ++i) {
        const std::uint32_t* slot = find_slot(market, market.instruments[i].symbol);
        if (*slot == 0) {
            market.slots[static_cast<std::size_t>(slot - market.slots.data())] =
                static_cast<std::uint32_t>(i + 1);
        }
    }
}

// Adds an instrument at the end; a name that is there already keeps pointing at its first instrument.
Instrument& add_instrument(Market& market, std::string_view symbol) {
    if ((market.instruments.size() + 1) * 2 > market.slots.size()) {
        grow_slots(market);
    }
    const std::uint32_t* slot = find_slot(market, symbol);
    market.instruments.emplace_back();
    market.instruments.back().symbol = symbol;
    if (*slot == 0) {
        market.slots[static_cast<std::size_t>(slot - market.slots.data())] =
            static_cast<std::uint32_t>(market.instruments.size());
    }
    return market.instruments.back();
}

// Messages of one instrument often follow each other, so the latest one is looked at first.
Instrument* known_instrument(Market& market, std::string_view symbol) {
    if (market.latest < market.instruments.size() && market.instruments[market.latest].symbol == symbol) {
        return &market.instruments[market.latest];
    }
    const std::uint32_t* slot = find_slot(market, symbol);
    if (slot == nullptr || *slot == 0) {
        return nullptr;
    }
    market.latest = *slot - 1;
    return &market.instruments[market.latest];
}

Instrument& instrument_of(Market& market, std::string_view symbol) {
    Instrument* known = known_instrument(market, symbol);
    return known != nullptr ? *known : add_instrument(market, symbol);
}

// The entry of a center in a list kept in letter order, made when it is not there.
template <class Entry>
Entry& entry_of(std::vector<Entry>& entries, char center) {
    auto at = entries.begin();
    while (at != entries.end() &&
           static_cast<unsigned char>(at->center) < static_cast<unsigned char>(center)) {
        ++at;
    }
    if (at == entries.end() || at->center != center) {
        at = entries.emplace(at);
        at->center = center;
    }
    return *at;
}

void apply_directory(Market& market, const Message& message) {
    ++market.directory_count;
    Instrument* known = known_instrument(market, message.symbol);
    // A second entry of the same name is a separate instrument that no message can reach; it keeps the
    // numbering.
    Instrument& entry =
        known != nullptr && known->secid == 0 ? *known : add_instrument(market, message.symbol);
    entry.secid = market.directory_count & 0xffffu;
}

void apply_odd_lots(Instrument& instrument, CenterQuote& quote, const Message& message) {
    quote.odd_lots.resize(message.odd_lots.size());
    for (std::size_t i = 0; i < message.odd_lots.size(); ++i) {
        const OddLotFields& from = message.odd_lots[i];
        OddLot& to = quote.odd_lots[i];
        to.center = from.center;
        to.side = from.side;
        to.price = from.price;
        to.size = from.size;
        to.mpid = from.mpid;
    }
    BestOddLot& best = instrument.best_odd_lot;
    switch (message.quote.best_odd_lot_indicator) {
        case '2':
        case '3':
        case '5':
            best.present = true;
            best.bid_center = message.best_odd_lot.bid_center;
            best.ask_center = message.best_odd_lot.ask_center;
            best.bid = message.best_odd_lot.bid;
            best.ask = message.best_odd_lot.ask;
            best.bid_size = message.best_odd_lot.bid_size;
            best.ask_size = message.best_odd_lot.ask_size;
            best.bid_mpid = message.best_odd_lot.bid_mpid;
            best.ask_mpid = message.best_odd_lot.ask_mpid;
            break;
        case '1': best = {}; break;
        default: break;  // "0": as it was
    }
}

void apply_nbbo(Nbbo& nbbo, const Message& message) {
    const QuoteFields& q = message.quote;
    switch (q.nbbo_indicator) {
        case '1': nbbo = {}; break;
        case '2':
        case '3':
            nbbo = {message.nbbo.bid,      message.nbbo.ask,        message.nbbo.bid_size,
                    message.nbbo.ask_size, message.nbbo.bid_center, message.nbbo.ask_center};
            break;
        case '4':
            nbbo = {q.bid,
                    q.ask,
                    q.bid_size,
                    q.ask_size,
                    message.header.market_center,
                    message.header.market_center};
            break;
        default: break;  // "0": as it was
    }
}

void apply_quote(Market& market, const Message& message) {
    Instrument& instrument = instrument_of(market, message.symbol);
    CenterQuote& quote = entry_of(instrument.quotes, message.header.market_center);
    const QuoteFields& q = message.quote;
    quote.bid = q.bid;
    quote.ask = q.ask;
    quote.bid_size = q.bid_size;
    quote.ask_size = q.ask_size;
    quote.present = q.bid != 0 || q.ask != 0;
    quote.condition = q.condition;
    if (q.adf_mpid_indicator == '2') {
        quote.bid_mpid = q.bid_mpid;
        quote.ask_mpid = q.ask_mpid;
    }
    apply_nbbo(instrument.nbbo, message);
    apply_odd_lots(instrument, quote, message);
}

void apply_odd_lot_message(Market& market, const Message& message) {
    Instrument& instrument = instrument_of(market, message.symbol);
    apply_odd_lots(instrument, entry_of(instrument.quotes, message.header.market_center), message);
}

// The price change indicator is "0" plus 1 for a new last price, 2 for a new low and 4 for a new high.
void apply_change(SaleStatistics& sales, char indicator, const TradeFields& trade) {
    const unsigned bits = static_cast<unsigned>(static_cast<unsigned char>(indicator)) - '0';
    if ((bits & 1u) != 0 || all_in(trade.conditions, last_set)) {
        sales.last = trade.price;
    }
    if ((bits & 2u) != 0) {
        sales.low = trade.price;
    }
    if ((bits & 4u) != 0) {
        sales.high = trade.price;
    }
    if (all_in(trade.conditions, volume_set)) {
        sales.volume += trade.size;
    }
}

void keep_trade(Instrument& instrument, const Message& message, const TradeFields& trade) {
    if (instrument.trades.size() >= trades_kept_max) {
        instrument.trades.erase(instrument.trades.begin(),
                                instrument.trades.begin() + static_cast<std::ptrdiff_t>(trades_kept_max / 2));
    }
    Trade& kept = instrument.trades.emplace_back();
    kept.center = message.header.market_center;
    kept.sub_center = message.header.sub_market_center;
    std::copy_n(trade.conditions.begin(), std::min(trade.conditions.size(), kept.conditions.size()),
                kept.conditions.begin());
    kept.id = trade.id;
    kept.price = trade.price;
    kept.size = trade.size;
}

void apply_trade(Market& market, const Message& message) {
    Instrument& instrument = instrument_of(market, message.symbol);
    const TradeFields& trade = message.report.trade;
    keep_trade(instrument, message, trade);
    ++instrument.trade_count;
    instrument.share_volume += trade.size / millionths_per_share;
    apply_change(instrument.sales, message.report.consolidated_change, trade);
    if (all_in(trade.conditions, last_set)) {
        instrument.last_center = message.header.market_center;
    }
    apply_change(entry_of(instrument.center_sales, message.header.market_center).sales,
                 message.report.participant_change, trade);
}

// Marks the newest kept trade of that id as gone; one that is no longer kept needs nothing.
void end_trade(Instrument& instrument, const Message& message) {
    const auto found =
        std::find_if(instrument.trades.rbegin(), instrument.trades.rend(), [&message](const Trade& trade) {
            return trade.id == message.report.trade.id && trade.center == message.header.market_center &&
                   trade.sub_center == message.header.sub_market_center;
        });
    if (found != instrument.trades.rend()) {
        found->live = false;
    }
}

void apply_revision(Market& market, const Message& message) {
    Instrument& instrument = instrument_of(market, message.symbol);
    end_trade(instrument, message);
    if (message.kind == MessageKind::correction) {
        keep_trade(instrument, message, message.report.corrected);
    }
    instrument.sales = message.report.consolidated;
    instrument.last_center = message.report.last_center;
    entry_of(instrument.center_sales, message.header.market_center).sales = message.report.participant;
}

void apply_action(Market& market, const Message& message) {
    Instrument& instrument = instrument_of(market, message.symbol);
    instrument.status = message.action.action;
    instrument.reason = message.action.reason;
    instrument.action_sequence = message.action.sequence;
}

}  // namespace

void apply_decoded(Market& market, const Message& message, std::uint64_t sequence) {
    ++market.messages;
    if (sequence != 0) {
        market.last_sequence = sequence;
    }
    switch (message.kind) {
        case MessageKind::quote_short:
        case MessageKind::quote_long: apply_quote(market, message); break;
        case MessageKind::odd_lots_short:
        case MessageKind::odd_lots_long: apply_odd_lot_message(market, message); break;
        case MessageKind::trade_short:
        case MessageKind::trade_long: apply_trade(market, message); break;
        case MessageKind::cancel_error:
        case MessageKind::correction: apply_revision(market, message); break;
        case MessageKind::trading_action: apply_action(market, message); break;
        case MessageKind::price_band:
            instrument_of(market, message.symbol).band = {message.band.indicator, message.band.lower,
                                                          message.band.upper};
            break;
        case MessageKind::directory_short: apply_directory(market, message); break;
        case MessageKind::indicator:
            instrument_of(market, message.symbol).indicator = message.directory.indicator;
            break;
        case MessageKind::decline_levels:
            std::copy(std::begin(message.decline_level), std::end(message.decline_level),
                      market.decline_levels.begin());
            break;
        case MessageKind::mwcb_status: market.mwcb_level = message.mwcb_level; break;
        case MessageKind::end_of_snapshot: market.snapshot_sequence = message.snapshot_sequence; break;
        case MessageKind::start_of_day: market.day_started = true; break;
        case MessageKind::session_open: market.open_centers.push_back(message.header.market_center); break;
        // The long directory entry repeats the short one; the quotes after a wipe-out carry its effect; an
        // MPID quote, a collar and an as-of trade change no state.
        case MessageKind::directory_long:
        case MessageKind::wipe_out:
        case MessageKind::mpid_quote:
        case MessageKind::collar:
        case MessageKind::as_of:
        case MessageKind::unknown: break;
    }
}

void apply_message(Market& market, const unsigned char* bytes, std::size_t length, std::uint64_t sequence) {
    if (!decode_message(market.message, bytes, length, &market.last_error)) {
        ++market.undecoded;
        ++market.messages;
        if (sequence != 0) {
            market.last_sequence = sequence;
        }
        return;
    }
    apply_decoded(market, market.message, sequence);
}

const Instrument* find_instrument(const Market& market, std::string_view symbol) {
    if (market.latest < market.instruments.size() && market.instruments[market.latest].symbol == symbol) {
        return &market.instruments[market.latest];
    }
    const std::uint32_t* slot = find_slot(market, symbol);
    return slot == nullptr || *slot == 0 ? nullptr : &market.instruments[*slot - 1];
}

const CenterQuote* find_quote(const Instrument& instrument, char center) {
    for (const CenterQuote& quote : instrument.quotes) {
        if (quote.center == center) {
            return &quote;
        }
    }
    return nullptr;
}

bool band_in_force(const Band& band) {
    return band.lower > 0 && band.upper > 0 &&
           (band.indicator == 'A' || band.indicator == 'B' || band.indicator == 'C' ||
            band.indicator == 'E' || band.indicator == 'G');
}

std::size_t build_levels(const Instrument& instrument, char side, Level* levels, std::size_t most) {
    const bool bids = side == 'B';
    std::size_t count = 0;
    for (const CenterQuote& quote : instrument.quotes) {
        const std::int64_t price = bids ? quote.bid : quote.ask;
        const std::int64_t size = bids ? quote.bid_size : quote.ask_size;
        if (price <= 0 || size <= 0) {
            continue;
        }
        std::size_t at = 0;
        while (at < count && (bids ? levels[at].price > price : levels[at].price < price)) {
            ++at;
        }
        if (at < count && levels[at].price == price) {
            levels[at].size += size;
            continue;
        }
        if (at == most) {
            continue;  // worse than all that are kept, and whatever is kept only gets better
        }
        if (count == most) {
            --count;
        }
        std::copy_backward(levels + at, levels + count, levels + count + 1);
        levels[at] = {price, size};
        ++count;
    }
    return count;
}

}  // namespace tessel::receiver
