#include "support/model/model_wire.h"

namespace tessel::model {

Bytes& Bytes::num(std::uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        bytes += static_cast<char>((value >> (8 * i)) & 0xff);
    }
    return *this;
}

Bytes& Bytes::text(const std::string& value, std::size_t width) {
    std::string padded = value.substr(0, width);
    padded.resize(width, ' ');
    bytes += padded;
    return *this;
}

Bytes& Bytes::ch(char c) {
    bytes += c;
    return *this;
}

Bytes header(char category, char type, char market_center, char sub_market_center, std::uint64_t sip_ns,
             std::uint64_t participant_ns) {
    Bytes b;
    b.ch('1').ch(category).ch(type).ch(market_center).ch(sub_market_center);
    b.num(sip_ns, 8).num(participant_ns, 8).num(0, 8);
    return b;
}

namespace {

void nbbo_appendage(Bytes& b, const QuoteMessage& m) {
    const Nbbo& n = m.nbbo;
    if (m.nbbo_ind == '2') {
        b.ch(m.nbbo_condition);
        b.ch(n.bid_mc).cents(n.bid).num(n.bid_size, 2);
        b.ch(n.ask_mc).cents(n.ask).num(n.ask_size, 2);
    }
    if (m.nbbo_ind == '3') {
        b.ch(m.nbbo_condition);
        b.ch(n.bid_mc).price(n.bid).num(n.bid_size, 4);
        b.ch(n.ask_mc).price(n.ask).num(n.ask_size, 4);
    }
}

void odd_lot_appendages(Bytes& b, const QuoteMessage& m) {
    if (m.odd_best_ind == '2') {
        b.ch(m.odd_bid.market_center).cents(m.odd_bid.price).num(m.odd_bid.size, 2);
        b.ch(m.odd_ask.market_center).cents(m.odd_ask.price).num(m.odd_ask.size, 2);
    }
    if (m.odd_best_ind == '3' || m.odd_best_ind == '5') {
        b.ch(m.odd_bid.market_center).price(m.odd_bid.price).num(m.odd_bid.size, 2);
        b.ch(m.odd_ask.market_center).price(m.odd_ask.price).num(m.odd_ask.size, 2);
    }
    if (m.odd_best_ind == '5') {
        b.text(m.odd_bid.mpid, 4).text(m.odd_ask.mpid, 4);
    }
    for (const OddLot& o : m.quote.odd_lots) {
        if (m.odd_list_ind == '2') {
            b.ch(o.market_center).ch(o.side).cents(o.price).num(o.size, 2);
        }
        if (m.odd_list_ind == '3') {
            b.ch(o.market_center).ch(o.side).price(o.price).num(o.size, 2);
        }
        if (m.odd_list_ind == '5') {
            b.ch(o.market_center).ch(o.side).price(o.price).num(o.size, 2).text(o.mpid, 4);
        }
    }
}

}  // namespace

std::string short_quote(const QuoteMessage& m) {
    Bytes b = header('Q', 'C', m.market_center, ' ', m.sip_ns, m.participant_ns);
    b.text(m.symbol, 5);
    b.cents(m.quote.bid).num(m.quote.bid_size, 2);
    b.cents(m.quote.ask).num(m.quote.ask_size, 2);
    b.ch(m.quote.condition).ch(m.sip_flag).ch(m.luld_bbo).ch(' ').ch(m.nbbo_ind).ch(m.luld_nbbo);
    b.ch(m.odd_best_ind).ch(m.odd_list_ind).num(m.quote.odd_lots.size(), 2);
    nbbo_appendage(b, m);
    odd_lot_appendages(b, m);
    return b.bytes;
}

std::string long_quote(const QuoteMessage& m) {
    Bytes b = header('Q', 'D', m.market_center, ' ', m.sip_ns, m.participant_ns);
    b.num(m.adf_ns, 8);
    b.text(m.symbol, 11);
    b.price(m.quote.bid).num(m.quote.bid_size, 4);
    b.price(m.quote.ask).num(m.quote.ask_size, 4);
    b.ch(m.quote.condition).ch(m.sip_flag).ch(m.luld_bbo).ch(' ').ch(m.nbbo_ind).ch(m.luld_nbbo);
    b.ch(m.mpid_ind).ch(m.odd_best_ind).ch(m.odd_list_ind).num(m.quote.odd_lots.size(), 2);
    nbbo_appendage(b, m);
    if (m.mpid_ind == '2') {
        b.text(m.quote.bid_mpid, 4).text(m.quote.ask_mpid, 4);
    }
    odd_lot_appendages(b, m);
    return b.bytes;
}

std::string directory(const Instrument& in, bool long_form, std::uint64_t sip_ns, std::uint64_t time_ns) {
    const bool stopped = in.status == 'H' || in.status == 'P';
    Bytes b = header('A', long_form ? 'F' : 'B', 'Q', ' ', sip_ns, time_ns);
    b.text(in.symbol, 11).text("", 11).text(in.symbol + " COMMON STOCK", 30);
    b.ch('C').text("C", 2).ch('Q').ch('P').ch('N').num(100, 2).ch('N');
    if (!long_form) {
        return b.bytes;
    }
    b.ch('N').ch('0').ch('3');
    b.ch(stopped ? 'H' : 'T').text(stopped ? in.halt_reason : "", 6);
    b.ch(in.indicator).num(0, 8).num(0, 8);
    return b.bytes;
}

std::string indicator_message(const Instrument& in, std::uint64_t sip_ns, std::uint64_t time_ns) {
    return header('A', 'V', 'Q', ' ', sip_ns, time_ns).text(in.symbol, 11).ch(in.indicator).bytes;
}

std::string decline_levels(std::uint64_t sip_ns, std::uint64_t time_ns) {
    Bytes b = header('A', 'C', 'E', ' ', sip_ns, time_ns);
    return b.price(4'650'000'000).price(4'350'000'000).price(4'000'000'000).bytes;
}

std::string trading_action_message(const Instrument& in, char action, const std::string& reason,
                                   std::uint64_t sip_ns, std::uint64_t time_ns) {
    Bytes b = header('A', 'H', 'Q', ' ', sip_ns, time_ns);
    return b.text(in.symbol, 11).ch(action).num(in.action_seq, 4).num(time_ns, 8).text(reason, 6).bytes;
}

std::string band_message(const Instrument& in, char indicator, std::uint64_t sip_ns, std::uint64_t time_ns) {
    Bytes b = header('A', 'P', 'E', ' ', sip_ns, time_ns);
    return b.text(in.symbol, 11)
        .ch(indicator)
        .num(time_ns, 8)
        .price(in.luld_lower)
        .price(in.luld_upper)
        .bytes;
}

std::string collar_message(const Instrument& in, std::uint64_t sip_ns, std::uint64_t time_ns) {
    const std::int64_t ref = price_of(in.price);
    Bytes b = header('A', 'E', 'Q', ' ', sip_ns, time_ns);
    b.text(in.symbol, 11).num(in.action_seq, 4).price(ref);
    b.price(cut_to_cents(ref + ref / 20)).price(cut_to_cents(ref - ref / 20)).num(0, 1);
    return b.bytes;
}

}  // namespace tessel::model
