// Building the model, its draws, the tick, the start of day and the scenario's timed events.

#include "support/model/model.h"

#include "support/model/logarithm.h"
#include "support/model/model_wire.h"

#include <cmath>
#include <cstdlib>

namespace tessel::model {

namespace {

__extension__ using Wide = unsigned __int128;

std::vector<Instrument> instruments_of(const std::string& symbols) {
    std::vector<Instrument> list;
    std::size_t start = 0;
    while (start < symbols.size()) {
        std::size_t end = symbols.find(',', start);
        if (end == std::string::npos) {
            end = symbols.size();
        }
        const std::string item = symbols.substr(start, end - start);
        const std::size_t colon = item.find(':');
        Instrument in;
        in.symbol = item.substr(0, colon);
        if (colon != std::string::npos) {
            in.price = std::strtod(item.c_str() + colon + 1, nullptr);
        }
        in.secid = static_cast<std::uint16_t>(list.size() + 1);
        list.push_back(in);
        start = end + 1;
    }
    return list;
}

bool stopped(const Instrument& in) {
    return in.status == 'H' || in.status == 'P';
}

}  // namespace

Model::Model(const Options& chosen)
    : options(chosen), rng(chosen.seed), instruments(instruments_of(chosen.symbols)), faults(chosen.faults) {
    options.session = options.session.substr(0, 10);
    options.session.resize(10, ' ');
}

std::uint64_t Model::wall() {
    const std::uint64_t now = wall_ns;
    wall_ns += wall_step_ns;
    return now;
}

std::uint64_t Model::uniform_int(std::uint64_t lo, std::uint64_t hi) {
    const std::uint64_t range = hi - lo + 1;
    if (range == 0) {
        return rng();  // every 64-bit value
    }
    const std::uint64_t reject_below = (0 - range) % range;
    for (;;) {
        const Wide product = static_cast<Wide>(rng()) * range;
        if (static_cast<std::uint64_t>(product) >= reject_below) {
            return lo + static_cast<std::uint64_t>(product >> 64);
        }
    }
}

double Model::uniform_real() {
    const double u = static_cast<double>(rng()) * std::ldexp(1.0, -64);
    return u < 1.0 ? u : std::nextafter(1.0, 0.0);
}

double Model::normal_deviate() {
    if (have_deviate) {
        have_deviate = false;
        return saved_deviate;
    }
    double x = 0, y = 0, s = 0;
    do {
        const double u1 = uniform_real();
        const double u2 = uniform_real();
        x = 2 * u1 - 1;
        y = 2 * u2 - 1;
        s = x * x + y * y;
    } while (!(s > 0 && s <= 1));
    const double f = std::sqrt((-2 * logarithm(s)) / s);
    saved_deviate = x * f;
    have_deviate = true;
    return y * f;
}

void Model::tick(std::uint64_t now_ms) {
    ++ticks;
    have_deviate = false;
    const std::uint64_t now_ns = wall();
    for (std::size_t i = 0; i < instruments.size(); ++i) {
        step(instruments[i], i == 0, now_ms, now_ns);
    }
    flush();
}

void Model::step(Instrument& in, bool first, std::uint64_t now_ms, std::uint64_t now_ns) {
    if (stopped(in) && in.quote_resume_ms != 0 && in.quote_resume_ms <= now_ms) {
        resume_quotation(in, now_ns);
    }
    if (stopped(in)) {
        step_halted(in, first, now_ns);
        return;
    }
    if (in.status == 'Q' && in.trade_resume_ms != 0 && in.trade_resume_ms <= now_ms) {
        resume_trading(in, now_ns);
    }
    if (paused) {
        return;
    }

    const double z = normal_deviate();
    in.price = in.price * (1 + ((z * options.step_bps) * 0.0001));

    const double u = uniform_real();
    const int updates = u < 0.5 ? 3 : 2;
    for (int i = 0; i < updates && !options.participants.empty(); ++i) {
        const std::uint64_t index = uniform_int(0, options.participants.size() - 1);
        update_participant_quote(in, options.participants[index], now_ns, ' ');
    }

    exchange_print(in, now_ns);

    if (options.scenario.trf_every != 0 && ticks % options.scenario.trf_every == 0) {
        trf_print(in, now_ns);
    }
    if (first && pending_trf != 0) {
        --pending_trf;
        trf_print(in, now_ns);
    }

    const std::int64_t p = price_of(in.price);
    const std::int64_t moved = p > in.luld_ref ? p - in.luld_ref : in.luld_ref - p;
    if (in.luld_ref != 0 && in.luld_ref <= 100 * moved) {
        send_band(in, 'B', now_ns);
    } else if (options.scenario.band_every != 0 && in.band_due_ms != 0 && in.band_due_ms <= now_ms) {
        send_band(in, 'B', now_ns);
    }
}

void Model::step_halted(Instrument& in, bool first, std::uint64_t now_ns) {
    if (first && pending_trf != 0) {
        --pending_trf;
    }
    const double u = uniform_real();
    if (u < 0.3 && !options.participants.empty()) {
        const std::uint64_t index = uniform_int(0, options.participants.size() - 1);
        const char market_center = options.participants[index];
        if (market_center != 'D') {
            update_participant_quote(in, market_center, now_ns, 'N');
        }
    }
}

void Model::start_of_day() {
    const std::uint64_t t0 = wall();
    retained.push_back(header('C', 'I', 'E', ' ', wall(), t0).bytes);
    append(retained.back());
    append(decline_levels(wall(), t0));
    for (Instrument& in : instruments) {
        const std::uint64_t filled = wall();
        append(directory(in, false, filled, t0));
        append(directory(in, true, filled, t0));
        append(indicator_message(in, wall(), t0));
        send_band(in, 'A', t0);
    }
    for (char market_center : options.participants) {
        retained.push_back(header('C', 'O', market_center, ' ', wall(), t0).bytes);
        append(retained.back());
    }
    for (Instrument& in : instruments) {
        every_participant_quotes(in, t0);
    }
    for (Instrument& in : instruments) {
        record_trade(in, 'Q', ' ', cross_price(in, true), 5000, "@O  ", ' ', t0, 2);
    }
    flush();
}

void Model::fire_scenario_events(std::uint64_t now_ms) {
    const ScenarioSettings& s = options.scenario;
    const std::uint64_t elapsed = (now_ms - start_ms) / 1000;
    if (s.halt_after != 0 && !halt_fired && s.halt_after <= elapsed) {
        halt_fired = true;
        if (!instruments.empty()) {
            halt(instruments[0], "T1", s.halt_secs);
        }
    }
    if (s.pause_after != 0 && !pause_fired && s.pause_after <= elapsed) {
        pause_fired = true;
        if (!instruments.empty()) {
            luld_pause(instruments[instruments.size() == 1 ? 0 : 1], s.pause_secs);
        }
    }
    if (s.mwcb_level != 0 && !mwcb_fired && s.mwcb_after <= elapsed) {
        mwcb_fired = true;
        breach_mwcb(s.mwcb_level);
    }
    if (s.band_every != 0) {
        for (Instrument& in : instruments) {
            if (in.band_due_ms == 0) {
                in.band_due_ms = now_ms + std::uint64_t{s.band_every} * 1000;
            }
        }
    }
}

}  // namespace tessel::model
