// What an observer reads: truth lines, standard-error lines, counters, the book and BBO texts, the Snap-Shot
// spin.

#include "support/model/model.h"
#include "support/model/model_wire.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace tessel::model {

namespace {

std::string printed(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string out(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), format, again);
    va_end(again);
    out.pop_back();
    return out;
}

double dollars(std::int64_t price) {
    return static_cast<double>(price) / 1e6;
}

std::string truth_levels(const std::vector<Level>& levels) {
    std::string out;
    for (const Level& l : levels) {
        out +=
            text("%s[%.4f,%lld]", out.empty() ? "" : ",", dollars(l.price), static_cast<long long>(l.size));
    }
    return out;
}

std::string book_levels(const std::vector<Level>& levels) {
    std::string out;
    for (const Level& l : levels) {
        out += (out.empty() ? "[" : ",[") + plain(dollars(l.price)) + "," + std::to_string(l.size) + "]";
    }
    return out;
}

// A stored quote as a late joiner gets it: long form, with the stored NBBO and best odd-lot quote.
std::string rebuilt_quote(const Instrument& in, char market_center, const Quote& quote,
                          std::uint64_t spin_time_ns) {
    QuoteMessage m;
    m.market_center = market_center;
    m.sip_ns = m.participant_ns = spin_time_ns;
    m.adf_ns = market_center == 'D' ? spin_time_ns : 0;
    m.symbol = in.symbol;
    m.quote = quote;
    m.luld_bbo = luld_bbo_letter(in, quote);
    m.luld_nbbo = luld_national_letter(in);
    m.nbbo = in.nbbo;
    m.nbbo_condition = in.nbbo.bid != 0 && in.nbbo.ask != 0 ? 'R' : 'Y';
    m.nbbo_ind = '3';
    if (in.nbbo.bid == 0 && in.nbbo.ask == 0) {
        m.nbbo_ind = '1';
    } else if (is_whole_nbbo(in.nbbo, market_center, quote)) {
        m.nbbo_ind = '4';
    }
    if (market_center == 'D') {
        m.mpid_ind = '2';
    }
    if (in.best_odd_present) {
        m.odd_best_ind =
            in.best_odd_bid.market_center == 'D' || in.best_odd_ask.market_center == 'D' ? '5' : '3';
    }
    m.odd_bid = in.best_odd_bid;
    m.odd_ask = in.best_odd_ask;
    if (!quote.odd_lots.empty()) {
        m.odd_list_ind = market_center == 'D' ? '5' : '3';
    }
    return long_quote(m);
}

}  // namespace

std::string text(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string out = printed(format, arguments);
    va_end(arguments);
    return out;
}

std::string plain(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

void Model::say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    err += printed(format, arguments);
    va_end(arguments);
}

void Model::truth_line(const std::string& line) {
    if (options.truth) {
        truth += line;
    }
}

void Model::quote_line(const Instrument& in, std::uint64_t sequence, const std::string& extra) {
    std::string line = "{\"seq\":" + std::to_string(sequence) + ",\"secid\":" + std::to_string(in.secid) +
                       ",\"symbol\":\"" + in.symbol + "\",\"bid\":[" +
                       truth_levels(build_levels(in, 'B', 10)) + "],\"ask\":[" +
                       truth_levels(build_levels(in, 'A', 10)) + "]";
    line += text(",\"nbbo\":[%.4f,%u,%.4f,%u]", dollars(in.nbbo.bid), in.nbbo.bid_size, dollars(in.nbbo.ask),
                 in.nbbo.ask_size);
    if (band_active(in)) {
        line += text(",\"band\":[%.4f,%.4f]", dollars(in.luld_lower), dollars(in.luld_upper));
    }
    line += std::string(",\"status\":\"") + in.status + "\"" + extra + "}\n";
    truth_line(line);
}

std::string Model::stats_line() const {
    const Counters& c = counters;
    const std::pair<const char*, std::uint64_t> pairs[] = {
        {"quotes", c.quotes},
        {"adf_quotes", c.adf_quotes},
        {"nbbo_changes", c.nbbo_changes},
        {"sip_generated", c.sip_generated},
        {"trades", c.trades},
        {"exchange_prints", c.exchange_prints},
        {"trf_prints", c.trf_prints},
        {"cross_prints", c.cross_prints},
        {"odd_lot_prints", c.odd_lot_prints},
        {"sweeps", c.sweeps},
        {"cancels", c.cancels},
        {"errors", c.errors},
        {"corrections", c.corrections},
        {"asofs", c.asofs},
        {"bands", c.bands},
        {"halts", c.halts},
        {"pauses", c.pauses},
        {"quote_resumes", c.quote_resumes},
        {"trade_resumes", c.trade_resumes},
        {"mwcb", c.mwcb},
        {"collars", c.collars},
        {"wipeouts", c.wipeouts},
        {"snapshots", c.snapshots},
        {"snapshot_rejects", c.snapshot_rejects},
    };
    std::string out;
    for (const auto& [key, value] : pairs) {
        out += (out.empty() ? "" : " ") + std::string(key) + "=" + std::to_string(value);
    }
    return out;
}

std::string Model::faults_summary() const {
    return "tessel faults: sent " + std::to_string(packets_flushed - dropped) + " dropped " +
           std::to_string(dropped) + " duplicated " + std::to_string(duplicated) + " reordered " +
           std::to_string(reordered);
}

std::vector<std::string> Model::spin(std::uint64_t spin_time_ns) {
    const std::uint64_t t = spin_time_ns;
    std::vector<std::string> out = retained;
    for (const Instrument& in : instruments) {
        out.push_back(directory(in, false, t, t));
        out.push_back(directory(in, true, t, t));
        out.push_back(indicator_message(in, t, t));
    }
    for (const Instrument& in : instruments) {
        if (in.status != 'T') {
            out.push_back(trading_action_message(in, in.status, in.halt_reason, t, t));
        }
    }
    out.push_back(decline_levels(t, t));
    for (const Instrument& in : instruments) {
        const char letter = in.band_indicator == ' ' ? 'B' : in.band_indicator;
        if (in.luld_lower != 0) {
            out.push_back(band_message(in, letter, t, t));
        }
    }
    for (const Instrument& in : instruments) {
        if (in.status == 'P') {
            out.push_back(collar_message(in, t, t));
        }
    }
    for (const Instrument& in : instruments) {
        for (const auto& [market_center, quote] : in.quotes) {
            out.push_back(rebuilt_quote(in, static_cast<char>(market_center), quote, t));
        }
    }
    ++counters.snapshots;
    return out;
}

std::string Model::end_of_snapshot(std::uint64_t spin_time_ns) const {
    return header('A', 'S', 'E', ' ', spin_time_ns, spin_time_ns).num(next_sequence - 1, 8).bytes;
}

std::string Model::book(std::uint64_t now_ns) const {
    std::string out = "{\"ts_ns\":" + std::to_string(now_ns) + ",\"symbols\":{";
    for (const Instrument& in : instruments) {
        if (&in != &instruments.front()) {
            out += ",";
        }
        out += "\"" + in.symbol + "\":{\"bid\":[" + book_levels(build_levels(in, 'B', 5)) + "],\"ask\":[" +
               book_levels(build_levels(in, 'A', 5)) + "],\"last\":" + plain(dollars(in.last_trade_price)) +
               ",\"volume\":" + std::to_string(in.share_volume) + ",\"status\":\"" + in.status + "\"}";
    }
    return out + "}}\n";
}

std::string Model::bbo() const {
    std::string out;
    for (const Instrument& in : instruments) {
        out += in.symbol + " " + plain(dollars(in.nbbo.bid)) + " " + plain(dollars(in.nbbo.ask)) + "\n";
    }
    return out;
}

}  // namespace tessel::model
