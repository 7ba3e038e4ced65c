#include "console/market_book.h"

#include <algorithm>
#include <utility>

namespace tessel::console {

using receiver::Instrument;
using receiver::Message;
using receiver::MessageKind;
using receiver::TradeFields;

namespace {

constexpr std::size_t tape_slack = tape_trades_max / 2;

// The history of an instrument that the market has.
InstrumentHistory* history_of(MarketBook& book, std::string_view symbol) {
    const Instrument* const instrument = find_instrument(book.market, symbol);
    if (instrument == nullptr) {
        return nullptr;
    }
    const auto at = static_cast<std::size_t>(instrument - book.market.instruments.data());
    if (book.histories.size() <= at) {
        book.histories.resize(book.market.instruments.size());
    }
    return &book.histories[at];
}

void keep_trade(InstrumentHistory& history, const Message& message, const TradeFields& trade,
                std::uint64_t sequence, TradeKind kind) {
    if (history.tape.size() >= tape_trades_max + tape_slack) {
        history.tape.erase(history.tape.begin(),
                           history.tape.end() - static_cast<std::ptrdiff_t>(tape_trades_max));
    }
    TapeTrade& kept = history.tape.emplace_back();
    kept.sequence = sequence;
    kept.id = trade.id;
    kept.price = trade.price;
    kept.size = trade.size;
    std::copy_n(trade.conditions.begin(), std::min(trade.conditions.size(), kept.conditions.size()),
                kept.conditions.begin());
    kept.center = message.header.market_center;
    kept.sub_center = message.header.sub_market_center;
    kept.kind = kind;
}

// Marks the newest trade of that id; one that is no longer on the tape needs nothing.
void end_trade(InstrumentHistory& history, const Message& message, TradeState state) {
    const auto found =
        std::find_if(history.tape.rbegin(), history.tape.rend(), [&message](const TapeTrade& trade) {
            return trade.id == message.report.trade.id && trade.center == message.header.market_center &&
                   trade.sub_center == message.header.sub_market_center && trade.kind != TradeKind::as_of;
        });
    if (found != history.tape.rend()) {
        found->state = state;
    }
}

void note_trade(MarketBook& book, const Message& message, std::uint64_t sequence) {
    InstrumentHistory* const history = history_of(book, message.symbol);
    if (history == nullptr) {  // of an as-of trade: it makes no instrument
        return;
    }
    const receiver::TradeReportFields& report = message.report;
    switch (message.kind) {
        case MessageKind::cancel_error:
            end_trade(*history, message, report.function == 'E' ? TradeState::error : TradeState::canceled);
            break;
        case MessageKind::correction:
            end_trade(*history, message, TradeState::corrected);
            keep_trade(*history, message, report.corrected, sequence, TradeKind::correction);
            break;
        case MessageKind::as_of:
            keep_trade(*history, message, report.trade, sequence, TradeKind::as_of);
            break;
        default: keep_trade(*history, message, report.trade, sequence, TradeKind::trade); break;
    }
}

void note_action(MarketBook& book, const Message& message, std::uint64_t sequence) {
    InstrumentHistory* const history = history_of(book, message.symbol);
    if (history == nullptr) {
        return;
    }
    if (history->halts.size() >= halts_max) {
        history->halts.erase(history->halts.begin());
    }
    history->halts.push_back({sequence, message.action.action, std::string(message.action.reason)});
}

// Fills the event of a message. False when the message is none for the stream. `changes` says whether a
// trading action is another one than before.
bool make_event(const Message& message, std::uint64_t sequence, bool changes, MarketEvent& event) {
    switch (message.kind) {
        case MessageKind::trading_action:
            if (!changes) {
                return false;
            }
            event.kind = message.action.action == 'H'   ? EventKind::halt
                         : message.action.action == 'P' ? EventKind::pause
                                                        : EventKind::resume;
            event.action = message.action.action;
            event.reason = message.action.reason;
            break;
        case MessageKind::price_band: event.kind = EventKind::band; break;
        case MessageKind::mwcb_status:
            event.kind = EventKind::mwcb;
            event.level = message.mwcb_level;
            break;
        case MessageKind::wipe_out:
            event.kind = EventKind::wipeout;
            event.center = message.header.market_center;
            break;
        case MessageKind::cancel_error:
            event.kind = EventKind::cancel;
            event.center = message.header.market_center;
            break;
        case MessageKind::correction:
            event.kind = EventKind::correction;
            event.center = message.header.market_center;
            break;
        default: return false;
    }
    event.sequence = sequence;
    event.sip_ns = message.header.sip_time_ns;
    if (message.kind != MessageKind::mwcb_status && message.kind != MessageKind::wipe_out) {
        event.symbol = message.symbol;
    }
    return true;
}

bool is_quote(MessageKind kind) {
    return kind == MessageKind::quote_short || kind == MessageKind::quote_long ||
           kind == MessageKind::odd_lots_short || kind == MessageKind::odd_lots_long;
}

bool is_trade(MessageKind kind) {
    return kind == MessageKind::trade_short || kind == MessageKind::trade_long ||
           kind == MessageKind::cancel_error || kind == MessageKind::correction || kind == MessageKind::as_of;
}

Row make_row(const Instrument& instrument) {
    Row row;
    row.symbol = instrument.symbol;
    row.status = instrument.status;
    row.bid = instrument.nbbo.bid;
    row.ask = instrument.nbbo.ask;
    row.bid_size = instrument.nbbo.bid_size;
    row.ask_size = instrument.nbbo.ask_size;
    row.last = instrument.sales.last;
    row.volume = instrument.sales.volume;
    row.has_band = band_in_force(instrument.band);
    if (row.has_band) {
        row.band_lower = instrument.band.lower;
        row.band_upper = instrument.band.upper;
    }
    return row;
}

}  // namespace

void apply_to_book(MarketBook& book, const unsigned char* bytes, std::size_t length, std::uint64_t sequence,
                   const std::function<void(MarketEvent&&)>& event) {
    receiver::Market& market = book.market;
    if (!decode_message(market.message, bytes, length, &market.last_error)) {
        ++market.undecoded;
        return;
    }
    const Message& message = market.message;
    if (market.instruments.size() >= instruments_max && !message.symbol.empty() &&
        find_instrument(market, message.symbol) == nullptr) {
        ++book.ignored;
        return;
    }
    if (is_quote(message.kind)) {
        apply_decoded(market, message, sequence);
        return;
    }
    bool changes = false;
    if (message.kind == MessageKind::trading_action) {
        const Instrument* const before = find_instrument(market, message.symbol);
        changes = (before == nullptr ? 'T' : before->status) != message.action.action;
    }
    apply_decoded(market, message, sequence);
    if (is_trade(message.kind)) {
        note_trade(book, message, sequence);
    } else if (changes) {
        note_action(book, message, sequence);
    }
    MarketEvent made;
    if (sequence != 0 && make_event(message, sequence, changes, made)) {
        event(std::move(made));
    }
}

std::vector<Row> make_rows(MarketBook& book) {
    const std::vector<Instrument>& instruments = book.market.instruments;
    if (book.order.size() != instruments.size()) {
        book.order.resize(instruments.size());
        for (std::size_t at = 0; at < instruments.size(); ++at) {
            book.order[at] = static_cast<std::uint32_t>(at);
        }
        std::sort(book.order.begin(), book.order.end(),
                  [&instruments](std::uint32_t one, std::uint32_t other) {
                      const int order = instruments[one].symbol.compare(instruments[other].symbol);
                      return order != 0 ? order < 0 : one < other;
                  });
    }
    std::vector<Row> rows;
    rows.reserve(instruments.size());
    for (const std::uint32_t at : book.order) {
        rows.push_back(make_row(instruments[at]));
    }
    return rows;
}

bool make_detail(const MarketBook& book, std::string_view symbol, Detail& detail) {
    const Instrument* const instrument = find_instrument(book.market, symbol);
    if (instrument == nullptr) {
        return false;
    }
    detail = {};
    detail.row = make_row(*instrument);
    for (const receiver::CenterQuote& quote : instrument->quotes) {
        detail.quotes.push_back(
            {quote.center, quote.condition, quote.bid_size, quote.ask_size, quote.bid, quote.ask});
    }
    const auto at = static_cast<std::size_t>(instrument - book.market.instruments.data());
    if (at < book.histories.size()) {
        const InstrumentHistory& history = book.histories[at];
        const std::size_t skipped = history.tape.size() - std::min(history.tape.size(), tape_trades_max);
        detail.trades.assign(history.tape.begin() + static_cast<std::ptrdiff_t>(skipped), history.tape.end());
        detail.halts = history.halts;
    }
    return true;
}

}  // namespace tessel::console
