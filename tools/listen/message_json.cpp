#include "listen/message_json.h"

#include <fmt/format.h>

#include <iterator>

namespace tessel::listen {

namespace {

// Appends members to an object that is open in `out`.
struct Members {
    std::string& out;

    void name(std::string_view key) {
        if (out.back() != '{' && out.back() != '[') {
            out += ',';
        }
        out += '"';
        out += key;
        out += "\":";
    }

    void number(std::string_view key, std::uint64_t value) {
        name(key);
        fmt::format_to(std::back_inserter(out), "{}", value);
    }

    void price(std::string_view key, std::int64_t value) {
        name(key);
        fmt::format_to(std::back_inserter(out), "{}", value);
    }

    // Bytes outside printable ASCII are written as \u00XX: a message may hold any byte.
    void text(std::string_view key, std::string_view value) {
        name(key);
        out += '"';
        for (const char c : value) {
            const auto byte = static_cast<unsigned char>(c);
            if (c == '"' || c == '\\') {
                out += '\\';
                out += c;
            } else if (byte < 0x20 || byte > 0x7e) {
                fmt::format_to(std::back_inserter(out), "\\u{:04x}", byte);
            } else {
                out += c;
            }
        }
        out += '"';
    }

    void letter(std::string_view key, char value) {
        text(key, std::string_view(&value, 1));
    }

    void open(std::string_view key) {
        name(key);
        out += '{';
    }

    void close() {
        out += '}';
    }
};

void put_header(Members& to, const Header& h) {
    to.letter("version", h.version);
    to.letter("category", h.category);
    to.letter("type", h.type);
    to.letter("market_center", h.market_center);
    to.letter("sub_market_center", h.sub_market_center);
    to.number("sip_time_ns", h.sip_time_ns);
    to.number("participant_time_ns", h.participant_time_ns);
    to.number("participant_token", h.participant_token);
}

void put_odd_lots(Members& to, const Message& m) {
    const QuoteFields& q = m.quote;
    if (q.best_odd_lot_indicator == '2' || q.best_odd_lot_indicator == '3' ||
        q.best_odd_lot_indicator == '5') {
        const BestOddLotFields& best = m.best_odd_lot;
        to.open("best_odd_lot");
        to.letter("bid_center", best.bid_center);
        to.price("bid", best.bid);
        to.number("bid_size", best.bid_size);
        to.letter("ask_center", best.ask_center);
        to.price("ask", best.ask);
        to.number("ask_size", best.ask_size);
        if (q.best_odd_lot_indicator == '5') {
            to.text("bid_mpid", best.bid_mpid);
            to.text("ask_mpid", best.ask_mpid);
        }
        to.close();
    }
    if (!m.odd_lots.empty()) {
        to.name("odd_lots");
        to.out += '[';
        for (const OddLotFields& entry : m.odd_lots) {
            to.out += &entry == m.odd_lots.data() ? "{" : ",{";
            to.letter("center", entry.center);
            to.letter("side", entry.side);
            to.price("price", entry.price);
            to.number("size", entry.size);
            if (q.odd_lot_list_indicator == '5') {
                to.text("mpid", entry.mpid);
            }
            to.close();
        }
        to.out += ']';
    }
}

void put_quote(Members& to, const Message& m) {
    const QuoteFields& q = m.quote;
    const bool long_form = m.kind == MessageKind::quote_long;
    if (long_form) {
        to.number("adf_time_ns", q.adf_time_ns);
    }
    to.text("symbol", m.symbol);
    to.price("bid", q.bid);
    to.number("bid_size", q.bid_size);
    to.price("ask", q.ask);
    to.number("ask_size", q.ask_size);
    to.letter("condition", q.condition);
    to.letter("sip_flag", q.sip_flag);
    to.letter("luld_bbo", q.luld_bbo);
    to.letter("retail", q.retail);
    to.letter("nbbo_indicator", q.nbbo_indicator);
    to.letter("luld_nbbo", q.luld_nbbo);
    if (long_form) {
        to.letter("adf_mpid_indicator", q.adf_mpid_indicator);
    }
    to.letter("best_odd_lot_indicator", q.best_odd_lot_indicator);
    to.letter("odd_lot_list_indicator", q.odd_lot_list_indicator);
    to.number("odd_lot_count", q.odd_lot_count);
    if (q.nbbo_indicator == '2' || q.nbbo_indicator == '3') {
        to.open("nbbo");
        to.letter("condition", m.nbbo.condition);
        to.letter("bid_center", m.nbbo.bid_center);
        to.price("bid", m.nbbo.bid);
        to.number("bid_size", m.nbbo.bid_size);
        to.letter("ask_center", m.nbbo.ask_center);
        to.price("ask", m.nbbo.ask);
        to.number("ask_size", m.nbbo.ask_size);
        to.close();
    }
    if (q.adf_mpid_indicator == '2') {
        to.text("bid_mpid", q.bid_mpid);
        to.text("ask_mpid", q.ask_mpid);
    }
    put_odd_lots(to, m);
}

void put_mpid_quote(Members& to, const Message& m) {
    const QuoteFields& q = m.quote;
    to.number("adf_time_ns", q.adf_time_ns);
    to.text("symbol", m.symbol);
    to.price("bid", q.bid);
    to.number("bid_size", q.bid_size);
    to.price("ask", q.ask);
    to.number("ask_size", q.ask_size);
    to.letter("condition", q.condition);
    to.text("mpid", q.bid_mpid);
}

void put_odd_lots_only(Members& to, const Message& m) {
    if (m.kind == MessageKind::odd_lots_long) {
        to.number("adf_time_ns", m.quote.adf_time_ns);
    }
    to.text("symbol", m.symbol);
    to.letter("sip_flag", m.quote.sip_flag);
    to.letter("best_odd_lot_indicator", m.quote.best_odd_lot_indicator);
    to.letter("odd_lot_list_indicator", m.quote.odd_lot_list_indicator);
    to.number("odd_lot_count", m.quote.odd_lot_count);
    put_odd_lots(to, m);
}

void put_trade_fields(Members& to, const TradeFields& trade, bool with_sale_days) {
    to.number("id", trade.id);
    to.price("price", trade.price);
    to.number("size", trade.size);
    to.text("conditions", trade.conditions);
    to.letter("trade_through_exempt", trade.trade_through_exempt);
    if (with_sale_days) {
        to.number("sale_days", trade.sale_days);
    }
}

void put_statistics(Members& to, std::string_view key, const SaleStatistics& sales) {
    to.open(key);
    to.price("high", sales.high);
    to.price("low", sales.low);
    to.price("last", sales.last);
    to.number("volume", sales.volume);
    to.close();
}

void put_report(Members& to, const Message& m) {
    const TradeReportFields& r = m.report;
    to.number("trf_time_ns", r.trf_time_ns);
    to.text("symbol", m.symbol);
    if (m.kind == MessageKind::cancel_error) {
        to.letter("function", r.function);
    }
    put_trade_fields(to, r.trade, m.kind != MessageKind::trade_short);
    if (m.kind == MessageKind::correction) {
        to.open("corrected");
        put_trade_fields(to, r.corrected, true);
        to.close();
    }
    if (m.kind == MessageKind::as_of) {
        to.letter("as_of_action", r.as_of_action);
        to.number("execution_time_ns", r.execution_time_ns);
    } else if (m.kind == MessageKind::trade_short || m.kind == MessageKind::trade_long) {
        to.letter("consolidated_change", r.consolidated_change);
        to.letter("participant_change", r.participant_change);
    } else {
        put_statistics(to, "consolidated", r.consolidated);
        to.letter("consolidated_change", r.consolidated_change);
        to.letter("last_center", r.last_center);
        put_statistics(to, "participant", r.participant);
    }
}

void put_directory(Members& to, const Message& m) {
    const DirectoryFields& d = m.directory;
    to.text("symbol", m.symbol);
    to.text("old_symbol", d.old_symbol);
    to.text("issue_name", d.issue_name);
    to.letter("issue_type", d.issue_type);
    to.text("issue_sub_type", d.issue_sub_type);
    to.letter("flag_84", d.flag_84);
    to.letter("flag_85", d.flag_85);
    to.letter("flag_86", d.flag_86);
    to.number("round_lot", d.round_lot);
    to.letter("flag_89", d.flag_89);
    if (m.kind == MessageKind::directory_long) {
        to.letter("flag_90", d.flag_90);
        to.letter("flag_91", d.flag_91);
        to.letter("flag_92", d.flag_92);
        to.letter("state", d.state);
        to.text("reason", d.reason);
        to.letter("indicator", d.indicator);
        to.number("reserved_101", d.reserved_101);
        to.number("reserved_109", d.reserved_109);
    }
}

void put_action(Members& to, const Message& m) {
    to.text("symbol", m.symbol);
    to.letter("action", m.action.action);
    to.number("action_sequence", m.action.sequence);
    to.number("action_time_ns", m.action.time_ns);
    to.text("reason", m.action.reason);
}

void put_band(Members& to, const Message& m) {
    to.text("symbol", m.symbol);
    to.letter("indicator", m.band.indicator);
    to.number("effective_time_ns", m.band.effective_time_ns);
    to.price("lower", m.band.lower);
    to.price("upper", m.band.upper);
}

void put_collar(Members& to, const Message& m) {
    to.text("symbol", m.symbol);
    to.number("action_sequence", m.collar.action_sequence);
    to.price("reference", m.collar.reference);
    to.price("upper", m.collar.upper);
    to.price("lower", m.collar.lower);
    to.number("extension", m.collar.extension);
}

void put_body(Members& to, const Message& m) {
    switch (m.kind) {
        case MessageKind::quote_short:
        case MessageKind::quote_long: put_quote(to, m); break;
        case MessageKind::mpid_quote: put_mpid_quote(to, m); break;
        case MessageKind::odd_lots_short:
        case MessageKind::odd_lots_long: put_odd_lots_only(to, m); break;
        case MessageKind::trade_short:
        case MessageKind::trade_long:
        case MessageKind::cancel_error:
        case MessageKind::correction:
        case MessageKind::as_of: put_report(to, m); break;
        case MessageKind::directory_short:
        case MessageKind::directory_long: put_directory(to, m); break;
        case MessageKind::indicator:
            to.text("symbol", m.symbol);
            to.letter("indicator", m.directory.indicator);
            break;
        case MessageKind::trading_action: put_action(to, m); break;
        case MessageKind::price_band: put_band(to, m); break;
        case MessageKind::collar: put_collar(to, m); break;
        case MessageKind::decline_levels:
            to.price("level_1", m.decline_level[0]);
            to.price("level_2", m.decline_level[1]);
            to.price("level_3", m.decline_level[2]);
            break;
        case MessageKind::mwcb_status: to.letter("level", m.mwcb_level); break;
        case MessageKind::end_of_snapshot: to.number("snapshot_sequence", m.snapshot_sequence); break;
        case MessageKind::start_of_day:
        case MessageKind::session_open:
        case MessageKind::wipe_out:
        case MessageKind::unknown: break;
    }
}

}  // namespace

void append_message_json(std::string& out, const Message& message, std::uint64_t sequence) {
    out += '{';
    Members to{out};
    to.number("seq", sequence);
    to.text("kind", kind_name(message.kind));
    put_header(to, message.header);
    put_body(to, message);
    out += "}\n";
}

void append_undecoded_json(std::string& out, const unsigned char* bytes, std::size_t length,
                           std::uint64_t sequence, const std::string& error) {
    out += '{';
    Members to{out};
    to.number("seq", sequence);
    to.text("kind", kind_name(MessageKind::unknown));
    to.text("error", error);
    to.name("bytes");
    out += '"';
    for (std::size_t i = 0; i < length; ++i) {
        fmt::format_to(std::back_inserter(out), "{:02x}", bytes[i]);
    }
    out += "\"}\n";
}

}  // namespace tessel::listen
