// Trades and what is done to them afterwards.

#include "support/model/model.h"
#include "support/model/model_wire.h"

#include <utility>

namespace tessel::model {

namespace {

bool eligible(const std::string& conditions, const std::string& set) {
    for (char c : conditions) {
        if (c != ' ' && set.find(c) == std::string::npos) {
            return false;
        }
    }
    return true;
}
bool high_low_eligible(const std::string& c) {
    return eligible(c, "@ABDFGKLOPSXYZ14569");
}
bool last_eligible(const std::string& c) {
    return eligible(c, "@ABDFKLOSXY1569");
}
bool volume_eligible(const std::string& c) {
    return eligible(c, "@ABCDFGHIKLOPRSTUVWXYZ14567");
}

void apply(TradeStats& s, char market_center, std::int64_t price, std::uint64_t size,
           const std::string& conditions) {
    if (high_low_eligible(conditions)) {
        if (s.high == 0 || s.high < price) {
            s.high = price;
        }
        if (s.low == 0 || s.low > price) {
            s.low = price;
        }
    }
    if (last_eligible(conditions)) {
        s.last = price;
        s.last_mc = market_center;
    }
    if (volume_eligible(conditions)) {
        s.volume += size;
    }
}

char change_indicator(const TradeStats& before, const TradeStats& after) {
    int sum = 0;
    if (before.last != after.last) {
        sum += 1;
    }
    if (before.low != after.low) {
        sum += 2;
    }
    if (before.high != after.high) {
        sum += 4;
    }
    return static_cast<char>('0' + sum);
}

void recompute(Instrument& in) {
    in.consolidated = TradeStats();
    in.by_mc.clear();
    for (const Trade& t : in.trades) {
        if (!t.live) {
            continue;
        }
        apply(in.consolidated, t.market_center, t.price, t.size, t.conditions);
        apply(in.by_mc[t.market_center], t.market_center, t.price, t.size, t.conditions);
    }
}

TradeStats stats_of(const Instrument& in, char market_center) {
    const auto found = in.by_mc.find(market_center);
    return found == in.by_mc.end() ? TradeStats() : found->second;
}

Bytes& put_stats(Bytes& b, const TradeStats& s) {
    return b.price(s.high).price(s.low).price(s.last).num(s.volume, 8);
}

std::uint64_t next_id(Instrument& in, char market_center, char sub_market_center) {
    return ++in.trade_ids[std::string{market_center, sub_market_center}];
}

std::string cut(const std::string& line, std::size_t buffer_bytes) {
    return line.substr(0, buffer_bytes - 1);
}

unsigned long long ull(std::uint64_t v) {
    return v;
}

double dollars(std::int64_t price) {
    return static_cast<double>(price) / 1e6;
}

}  // namespace

void Model::record_trade(Instrument& in, char market_center, char sub_market_center, std::int64_t price,
                         std::uint64_t shares, const std::string& conditions, char exempt,
                         std::uint64_t time_ns, int kind) {
    const std::uint64_t id = next_id(in, market_center, sub_market_center);
    const std::uint64_t size = shares * 1'000'000;
    const TradeStats before = in.consolidated;
    const TradeStats mc_before = in.by_mc[market_center];
    apply(in.consolidated, market_center, price, size, conditions);
    apply(in.by_mc[market_center], market_center, price, size, conditions);
    if (last_eligible(conditions)) {
        in.last_trade_price = price;
    }
    in.share_volume += shares;
    const char indicator = change_indicator(before, in.consolidated);
    const char mc_indicator = change_indicator(mc_before, in.by_mc[market_center]);

    const bool is_short = in.symbol.size() <= 5 && price >= 0 && price <= 655'350'000 && price % 10000 == 0 &&
                          conditions[0] != 'R';
    Bytes b = header('T', is_short ? 'M' : 'N', market_center, sub_market_center, wall(), time_ns);
    b.num(market_center == 'D' ? time_ns : 0, 8).text(in.symbol, is_short ? 5 : 11).num(id, 8);
    if (is_short) {
        b.cents(price);
    } else {
        b.price(price);
    }
    b.num(size, 8).text(conditions, 4).ch(exempt);
    if (!is_short) {
        b.num(0, 2);
    }
    b.ch(indicator).ch(mc_indicator);
    const std::uint64_t sequence = append(b.bytes);
    ++counters.trades;

    in.trades.push_back({market_center, sub_market_center, id, price, size, conditions, exempt, true});
    if (in.trades.size() * 40 > 4'000'000) {
        in.trades.erase(in.trades.begin(), in.trades.begin() + 50'000);
    }

    truth_line(cut(
        text("{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"trade\":[%.4f,%llu,\"%c\",\"%.4s\"],\"kind\":%d,"
             "\"id\":%llu}\n",
             ull(sequence), static_cast<unsigned>(in.secid), in.symbol.c_str(), dollars(price), ull(shares),
             market_center, conditions.c_str(), kind, ull(id)),
        160));
    if (kind == 2) {
        ++counters.cross_prints;
    }

    const ScenarioSettings& s = options.scenario;
    if (s.cancel_every != 0 && counters.trades % s.cancel_every == 0) {
        ++pending_cancels;
    }
    if (s.correct_every != 0 && counters.trades % s.correct_every == 0) {
        ++pending_corrections;
    }
    if (s.asof_every != 0 && counters.trades % s.asof_every == 0) {
        emit_asof(in);
    }
    if (pending_cancels > 0) {
        --pending_cancels;
        cancel_one(in, time_ns);
    }
    if (pending_corrections > 0) {
        --pending_corrections;
        correct_one(in, time_ns);
    }
}

void Model::cancel_one(Instrument& in, std::uint64_t time_ns) {
    Trade* found = nullptr;
    for (Trade& t : in.trades) {
        if (t.live && t.conditions[1] == ' ' && t.conditions[3] != 'M') {
            found = &t;  // the newest one stays
        }
    }
    if (found == nullptr) {
        return;
    }
    found->live = false;
    recompute(in);
    const Trade t = *found;
    const char function = (counters.cancels + counters.errors) % 4 < 3 ? 'C' : 'E';
    Bytes b = header('T', 'O', t.market_center, t.sub_market_center, wall(), time_ns);
    b.num(t.market_center == 'D' ? time_ns : 0, 8).text(in.symbol, 11).ch(function);
    b.num(t.id, 8).price(t.price).num(t.size, 8).text(t.conditions, 4).ch(t.exempt).num(0, 2);
    put_stats(b, in.consolidated).ch('7').ch(in.consolidated.last_mc);
    put_stats(b, stats_of(in, t.market_center));
    const std::uint64_t sequence = append(b.bytes);
    ++(function == 'E' ? counters.errors : counters.cancels);
    truth_line(cut(
        text(
            "{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"cancel_error\":[%llu,%.4f,%llu,\"%c\",\"%c\"]}\n",
            ull(sequence), static_cast<unsigned>(in.secid), in.symbol.c_str(), ull(t.id), dollars(t.price),
            ull(t.size / 1'000'000), t.market_center, function),
        200));
}

void Model::correct_one(Instrument& in, std::uint64_t time_ns) {
    std::size_t found = in.trades.size();
    for (std::size_t i = 0; i < in.trades.size(); ++i) {
        const Trade& t = in.trades[i];
        if (t.live && t.conditions[1] == ' ' && t.conditions[3] == ' ') {
            found = i;
        }
    }
    if (found == in.trades.size()) {
        return;
    }
    const Trade old = in.trades[found];
    Trade now = old;
    now.id = next_id(in, old.market_center, old.sub_market_center);
    if (uniform_real() < 0.5) {
        now.price += uniform_real() < 0.5 ? 10000 : -10000;
    } else {
        now.size += 100'000'000;
    }
    in.trades[found].live = false;
    in.trades.push_back(now);
    recompute(in);
    Bytes b = header('T', 'P', old.market_center, old.sub_market_center, wall(), time_ns);
    b.num(old.market_center == 'D' ? time_ns : 0, 8).text(in.symbol, 11);
    for (const Trade& t : {old, now}) {
        b.num(t.id, 8).price(t.price).num(t.size, 8).text(t.conditions, 4).ch(t.exempt).num(0, 2);
    }
    put_stats(b, in.consolidated).ch('7').ch(in.consolidated.last_mc);
    put_stats(b, stats_of(in, old.market_center));
    const std::uint64_t sequence = append(b.bytes);
    truth_line(cut(
        text("{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"correction\":[%llu,%llu,%.4f,%llu,\"%c\"]}\n",
             ull(sequence), static_cast<unsigned>(in.secid), in.symbol.c_str(), ull(old.id), ull(now.id),
             dollars(now.price), ull(now.size / 1'000'000), old.market_center),
        220));
    ++counters.corrections;
}

void Model::emit_asof(Instrument& in) {
    const std::int64_t price = price_of(in.price) - 30000;
    const std::uint64_t now_ns = wall();
    Bytes b = header('T', 'Q', 'D', 'Q', wall(), now_ns);
    b.num(now_ns, 8)
        .text(in.symbol, 11)
        .num(0, 8)
        .price(price)
        .num(300'000'000, 8)
        .text("@   ", 4)
        .ch(' ')
        .num(0, 2);
    b.ch('A').num(now_ns - 86'400'000'000'000, 8);
    const std::uint64_t sequence = append(b.bytes);
    ++counters.asofs;
    truth_line("{\"seq\":" + std::to_string(sequence) + ",\"secid\":" + std::to_string(in.secid) +
               ",\"symbol\":\"" + in.symbol + "\",\"asof\":[" + plain(dollars(price)) +
               ",300,\"D\",\"@   \"]}\n");
    flush();
}

void Model::trf_print(Instrument& in, std::uint64_t now_ns) {
    std::int64_t price = price_of(in.price);
    if (in.nbbo.bid != 0 && in.nbbo.ask != 0) {
        std::int64_t lo = in.nbbo.bid / 10000, hi = in.nbbo.ask / 10000;
        if (lo > hi) {
            std::swap(lo, hi);
        }
        const std::uint64_t cents =
            uniform_int(static_cast<std::uint64_t>(lo), static_cast<std::uint64_t>(hi));
        price = static_cast<std::int64_t>(cents) * 10000;
    }
    const char sub_market_center = " NQB"[counters.trf_prints % 4];
    const std::uint64_t shares = uniform_int(1, 20) * 100;
    record_trade(in, 'D', sub_market_center, price, shares, "@   ", ' ', now_ns, 1);
    ++counters.trf_prints;
}

void Model::exchange_print(Instrument& in, std::uint64_t now_ns) {
    const double u = uniform_real();
    if (!(u < 0.5) || in.nbbo.bid == 0 || in.nbbo.ask == 0) {
        return;
    }
    const bool hits_bid = uniform_real() < 0.5;
    const char market_center = hits_bid ? in.nbbo.bid_mc : in.nbbo.ask_mc;
    const std::int64_t price = hits_bid ? in.nbbo.bid : in.nbbo.ask;
    if (market_center == 'D' || market_center == ' ') {
        return;
    }
    const double w = uniform_real();
    if (w < 0.08) {
        const std::uint64_t shares = uniform_int(1, 99);
        record_trade(in, market_center, ' ', price, shares, "@  I", ' ', now_ns, 0);
        ++counters.odd_lot_prints;
    } else if (w < 0.16) {
        const std::uint64_t shares = uniform_int(1, 5) * 100;
        record_trade(in, market_center, ' ', price, shares, "@F  ", 'X', now_ns, 0);
        ++counters.sweeps;
    } else {
        const std::uint64_t shares = uniform_int(1, 5) * 100;
        record_trade(in, market_center, ' ', price, shares, "@   ", ' ', now_ns, 0);
    }
    ++counters.exchange_prints;
}

}  // namespace tessel::model
