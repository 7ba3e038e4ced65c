// Quotes: drawing them, the NBBO, the best odd-lot quote, the choice of form, and the price helpers.

#include "support/model/model.h"
#include "support/model/model_wire.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace tessel::model {

namespace {

constexpr std::int64_t short_price_max = 655'350'000;

bool in_set(char c, const char* letters) {
    return c != '\0' && std::string(letters).find(c) != std::string::npos;
}

bool fits_short(std::int64_t price) {
    return price >= 0 && price <= short_price_max && price % 10000 == 0;
}

}  // namespace

std::int64_t cents_of(double dollars) {
    double cents = 100 * dollars;
    if (std::isnan(cents)) {
        return 0;
    }
    if (cents > 1e12) {
        cents = 1e12;
    }
    if (cents < -1e12) {
        cents = -1e12;
    }
    return std::llround(cents);
}

std::int64_t price_of(double dollars) {
    return cents_of(dollars) * 10000;
}

std::int64_t cut_to_cents(std::int64_t price) {
    return price / 10000 * 10000;
}

bool band_active(const Instrument& in) {
    return in.luld_lower > 0 && in.luld_upper > 0 && in_set(in.band_indicator, "ABCEG");
}

std::int64_t cross_price(const Instrument& in, bool only_bid_asked) {
    const bool both = in.nbbo.bid != 0 && (only_bid_asked || in.nbbo.ask != 0);
    return both ? (in.nbbo.bid + in.nbbo.ask) / 20000 * 10000 : price_of(in.price);
}

Nbbo compute_nbbo(const Instrument& in) {
    const bool active = band_active(in);
    auto eligible = [](const Quote& q) { return q.present && in_set(q.condition, "ABHORY"); };
    auto bid_counts = [&](const Quote& q) {
        return eligible(q) && q.bid >= 1 && q.bid_size >= 100 && (!active || q.bid <= in.luld_upper);
    };
    auto ask_counts = [&](const Quote& q) {
        return eligible(q) && q.ask >= 1 && q.ask_size >= 100 && (!active || q.ask >= in.luld_lower);
    };
    Nbbo best;
    for (const auto& [market_center, q] : in.quotes) {
        if (bid_counts(q) && (best.bid == 0 || q.bid > best.bid)) {
            best.bid = q.bid;
        }
        if (ask_counts(q) && (best.ask == 0 || q.ask < best.ask)) {
            best.ask = q.ask;
        }
    }
    const Quote* bid_holder = nullptr;
    const Quote* ask_holder = nullptr;
    for (const auto& [market_center, q] : in.quotes) {
        if (bid_counts(q) && q.bid == best.bid) {
            best.bid_size += q.bid_size;
            if (bid_holder == nullptr || q.bid_size > bid_holder->bid_size ||
                (q.bid_size == bid_holder->bid_size && q.time_ns < bid_holder->time_ns)) {
                bid_holder = &q;
                best.bid_mc = static_cast<char>(market_center);
            }
        }
        if (ask_counts(q) && q.ask == best.ask) {
            best.ask_size += q.ask_size;
            if (ask_holder == nullptr || q.ask_size > ask_holder->ask_size ||
                (q.ask_size == ask_holder->ask_size && q.time_ns < ask_holder->time_ns)) {
                ask_holder = &q;
                best.ask_mc = static_cast<char>(market_center);
            }
        }
    }
    return best;
}

std::vector<Level> build_levels(const Instrument& in, char side, std::size_t most) {
    std::map<std::int64_t, std::int64_t> sum;
    for (const auto& [market_center, q] : in.quotes) {
        const std::int64_t price = side == 'B' ? q.bid : q.ask;
        const std::uint32_t size = side == 'B' ? q.bid_size : q.ask_size;
        if (q.present && price > 0 && size > 0) {
            sum[price] += size;
        }
    }
    std::vector<Level> levels;
    for (const auto& [price, size] : sum) {
        levels.push_back({price, size});
    }
    if (side == 'B') {
        std::reverse(levels.begin(), levels.end());
    }
    if (levels.size() > most) {
        levels.resize(most);
    }
    return levels;
}

char luld_bbo_letter(const Instrument& in, const Quote& quote) {
    if (!band_active(in)) {
        return ' ';
    }
    const bool bid_above = quote.bid > in.luld_upper;
    const bool ask_below = quote.ask > 0 && quote.ask < in.luld_lower;
    if (bid_above && ask_below) {
        return 'C';
    }
    if (bid_above) {
        return 'A';
    }
    if (ask_below) {
        return 'B';
    }
    return ' ';
}

char luld_national_letter(const Instrument& in) {
    if (!band_active(in)) {
        return ' ';
    }
    const std::int64_t bid = in.nbbo.bid, ask = in.nbbo.ask, low = in.luld_lower, up = in.luld_upper;
    const bool bid_at_limit = bid == up && bid >= 1;
    const bool ask_at_limit = ask == low && ask > 0;
    const bool bid_outside = bid > 0 && bid < low;
    const bool ask_outside = ask > up;
    if (bid_at_limit && ask_at_limit) {
        return 'I';
    }
    if (bid_at_limit && ask_outside) {
        return 'G';
    }
    if (bid_outside && ask_at_limit) {
        return 'H';
    }
    if (bid_at_limit) {
        return 'E';
    }
    if (ask_at_limit) {
        return 'F';
    }
    if (bid_outside && ask_outside) {
        return 'D';
    }
    if (ask_outside) {
        return 'C';
    }
    if (bid_outside) {
        return 'B';
    }
    return 'A';
}

bool is_whole_nbbo(const Nbbo& nbbo, char market_center, const Quote& quote) {
    return nbbo.bid != 0 && nbbo.ask != 0 && nbbo.bid_mc == market_center && nbbo.ask_mc == market_center &&
           quote.bid == nbbo.bid && quote.ask == nbbo.ask && quote.bid_size == nbbo.bid_size &&
           quote.ask_size == nbbo.ask_size;
}

void Model::update_participant_quote(Instrument& in, char market_center, std::uint64_t now_ns,
                                     char override_condition) {
    Quote& q = in.quotes[static_cast<unsigned char>(market_center)];
    q.present = true;
    q.time_ns = now_ns;
    const std::int64_t c = cents_of(in.price);
    const auto k1 = static_cast<std::int64_t>(uniform_int(1, 3));
    const auto k2 = static_cast<std::int64_t>(uniform_int(1, 3));
    q.bid = (c - k1) * 10000;
    q.ask = (c + k2) * 10000;
    q.bid_size = static_cast<std::uint32_t>(uniform_int(1, 8)) * 100;
    q.ask_size = static_cast<std::uint32_t>(uniform_int(1, 8)) * 100;
    q.condition = override_condition;
    if (override_condition == ' ') {
        q.condition = 'R';
        if (uniform_real() < 0.04) {
            q.condition = 'Y';
            if (uniform_real() < 0.5) {
                q.ask = 0;
                q.ask_size = 0;
            } else {
                q.bid = 0;
                q.bid_size = 0;
            }
        }
    }
    if (market_center == 'D') {
        q.bid_mpid = "NITE";
        q.ask_mpid = "GSCO";
    }
    q.odd_lots.clear();
    const std::uint32_t every = options.scenario.odd_lot_every;
    if (every != 0 && (counters.quotes + 1) % every == 0) {
        const auto bid_size = static_cast<std::uint32_t>(uniform_int(1, 99));
        q.odd_lots.push_back({market_center, 'B', q.bid == 0 ? c * 10000 : q.bid + 10000, bid_size,
                              market_center == 'D' ? "NITE" : ""});
        const auto ask_size = static_cast<std::uint32_t>(uniform_int(1, 99));
        q.odd_lots.push_back({market_center, 'A', q.ask == 0 ? c * 10000 : q.ask - 10000, ask_size,
                              market_center == 'D' ? "GSCO" : ""});
    }
    publish_quote(in, market_center, ' ', now_ns);
}

// Finds the best odd-lot orders against the stored NBBO, stores them, and answers with the indicator
// "0" (no change), "1" (gone), "2" (fits short), "3" (long) or "5" (long with MPIDs).
char Model::store_best_odd_lot(Instrument& in) {
    OddLot bid, ask;
    bool have_bid = false, have_ask = false;
    for (const auto& [market_center, q] : in.quotes) {
        for (const OddLot& o : q.odd_lots) {
            if (o.size == 0) {
                continue;
            }
            if (o.side == 'B' && (in.nbbo.bid == 0 || o.price > in.nbbo.bid) &&
                (!have_bid || o.price > bid.price)) {
                bid = o;
                have_bid = true;
            }
            if (o.side == 'A' && (in.nbbo.ask == 0 || o.price < in.nbbo.ask) &&
                (!have_ask || o.price < ask.price)) {
                ask = o;
                have_ask = true;
            }
        }
    }
    if (!have_bid && !have_ask) {
        const char gone = in.best_odd_present ? '1' : '0';
        in.best_odd_present = false;
        return gone;
    }
    auto same = [](const OddLot& a, const OddLot& b) {
        return a.market_center == b.market_center && a.price == b.price && a.size == b.size;
    };
    if (in.best_odd_present && same(bid, in.best_odd_bid) && same(ask, in.best_odd_ask)) {
        return '0';
    }
    in.best_odd_bid = bid;
    in.best_odd_ask = ask;
    in.best_odd_present = true;
    if (bid.market_center == 'D' || ask.market_center == 'D') {
        return '5';
    }
    return fits_short(bid.price) && fits_short(ask.price) ? '2' : '3';
}

void Model::publish_quote(Instrument& in, char market_center, char sip_flag, std::uint64_t now_ns) {
    const Quote& q = in.quotes[static_cast<unsigned char>(market_center)];
    QuoteMessage m;
    m.market_center = market_center;
    m.sip_ns = wall();
    m.participant_ns = now_ns;
    m.adf_ns = market_center == 'D' ? now_ns : 0;
    m.symbol = in.symbol;
    m.quote = q;
    m.sip_flag = sip_flag;
    m.luld_bbo = luld_bbo_letter(in, q);

    const Nbbo nbbo = compute_nbbo(in);
    if (nbbo != in.nbbo) {
        ++counters.nbbo_changes;
    }
    if (in.nbbo_valid && nbbo == in.nbbo) {
        m.nbbo_ind = '0';
    } else if (nbbo.bid == 0 && nbbo.ask == 0) {
        m.nbbo_ind = '1';
    } else if (is_whole_nbbo(nbbo, market_center, q)) {
        m.nbbo_ind = '4';
    } else {
        const bool small =
            fits_short(nbbo.bid) && fits_short(nbbo.ask) && nbbo.bid_size < 65535 && nbbo.ask_size < 65535;
        m.nbbo_ind = small ? '2' : '3';
        m.nbbo_condition = nbbo.bid != 0 && nbbo.ask != 0 ? 'R' : 'Y';
    }
    m.nbbo = nbbo;
    in.nbbo = nbbo;
    in.nbbo_valid = true;
    m.luld_nbbo = luld_national_letter(in);

    m.odd_best_ind = store_best_odd_lot(in);
    m.odd_bid = in.best_odd_bid;
    m.odd_ask = in.best_odd_ask;

    bool is_short = market_center != 'D' && in.symbol.size() <= 5 && fits_short(q.bid) && fits_short(q.ask) &&
                    q.bid_size <= 65534 && q.ask_size <= 65534 && m.nbbo_ind != '3' &&
                    m.odd_best_ind != '3' && m.odd_best_ind != '5';
    for (const OddLot& o : q.odd_lots) {
        is_short = is_short && fits_short(o.price);
    }
    if (!is_short) {
        if (m.nbbo_ind == '2') {
            m.nbbo_ind = '3';
        }
        if (m.odd_best_ind == '2') {
            m.odd_best_ind = '3';
        }
    }
    if (!q.odd_lots.empty()) {
        m.odd_list_ind = market_center == 'D' ? '5' : is_short ? '2' : '3';
    }
    if (market_center == 'D') {
        m.mpid_ind = '2';
    }

    const std::uint64_t sequence = append(is_short ? short_quote(m) : long_quote(m));
    ++counters.quotes;
    if (sip_flag == 'E') {
        ++counters.sip_generated;
    }
    if (market_center == 'D') {
        ++counters.adf_quotes;
    }
    quote_line(in, sequence, "");
    if (market_center == 'D' && counters.quotes % 7 == 0 && q.bid != 0) {
        mpid_quote(in, q);
    }
}

void Model::mpid_quote(const Instrument& in, const Quote& quote) {
    Bytes b = header('Q', 'M', 'D', ' ', wall(), quote.time_ns);
    b.num(quote.time_ns, 8).text(in.symbol, 11);
    b.price(quote.bid - 10000).num(100, 4).price(quote.ask + 10000).num(100, 4);
    b.ch('R').text("VIRT", 4);
    append(b.bytes);
}

void Model::empty_all_quotes(Instrument& in, std::uint64_t now_ns) {
    for (char market_center : options.participants) {
        Quote& q = in.quotes[static_cast<unsigned char>(market_center)];
        q.present = true;
        q.bid = q.ask = 0;
        q.bid_size = q.ask_size = 0;
        q.condition = 'L';
        q.time_ns = now_ns;
        q.odd_lots.clear();
        publish_quote(in, market_center, ' ', now_ns);
    }
}

void Model::every_participant_quotes(Instrument& in, std::uint64_t now_ns) {
    for (char market_center : options.participants) {
        update_participant_quote(in, market_center, now_ns, ' ');
    }
}

}  // namespace tessel::model
