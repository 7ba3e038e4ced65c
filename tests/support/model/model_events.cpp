// Regulatory events: halts, resumptions, price bands, pauses, the circuit breaker, the wipe-out.

#include "support/model/model.h"
#include "support/model/model_wire.h"

namespace tessel::model {

namespace {
unsigned long long ull(std::uint64_t v) {
    return v;
}
}  // namespace

void Model::trading_action(Instrument& in, char action, const std::string& reason, std::uint64_t time_ns) {
    ++in.action_seq;
    in.status = action;
    in.halt_reason = reason;
    const std::uint64_t sequence = append(trading_action_message(in, action, reason, wall(), time_ns));
    std::string extra = ",\"ah\":\"";
    extra += action;
    extra += "\",\"reason\":\"";
    extra += reason;
    extra += '"';
    quote_line(in, sequence, extra);
}

void Model::halt(Instrument& in, const std::string& reason, std::uint32_t seconds) {
    const std::uint64_t now_ns = wall();
    trading_action(in, 'H', reason, now_ns);
    empty_all_quotes(in, now_ns);
    ++counters.halts;
    in.trade_resume_ms = 0;
    in.quote_resume_ms = seconds == 0 ? 0 : steady_ms + std::uint64_t{seconds} * 1000;
    if (in.luld_lower != 0) {
        send_band(in, 'D', now_ns);
    }
    const std::string suffix = seconds == 0 ? "" : ", resuming in " + std::to_string(seconds) + " s";
    say("bench: %s halted (%s) at seq %llu%s\n", in.symbol.c_str(), reason.c_str(), ull(next_sequence - 1),
        suffix.c_str());
    flush();
}

void Model::resume_quotation(Instrument& in, std::uint64_t time_ns) {
    std::string reason = "T3";
    if (in.halt_reason.rfind("MWC", 0) == 0) {
        reason = "MWCQ";
    }
    if (in.halt_reason == "LUDP") {
        reason = "LUDP";
    }
    trading_action(in, 'Q', reason, time_ns);
    ++counters.quote_resumes;
    every_participant_quotes(in, time_ns);
    if (in.band_indicator == 'D') {
        send_band(in, 'E', time_ns);
    }
    in.quote_resume_ms = 0;
    in.trade_resume_ms = steady_ms + 2000;
    say("bench: %s quotation resumption at seq %llu\n", in.symbol.c_str(), ull(next_sequence - 1));
}

void Model::resume_trading(Instrument& in, std::uint64_t time_ns) {
    trading_action(in, 'T', std::string(in.halt_reason), time_ns);
    ++counters.trade_resumes;
    in.trade_resume_ms = 0;
    record_trade(in, 'Q', ' ', cross_price(in, false), 3000, "@5  ", ' ', time_ns, 2);
    say("bench: %s trading resumption at seq %llu\n", in.symbol.c_str(), ull(next_sequence - 1));
}

void Model::send_band(Instrument& in, char indicator, std::uint64_t time_ns) {
    if (indicator != 'D') {
        const std::int64_t ref = price_of(in.price);
        in.luld_ref = ref;
        in.luld_lower = cut_to_cents(ref - ref / 20);
        in.luld_upper = cut_to_cents(ref + ref / 20);
    }
    in.band_indicator = indicator;
    const std::uint64_t sequence = append(band_message(in, indicator, wall(), time_ns));
    ++counters.bands;
    const std::uint64_t period = options.scenario.band_every;
    if (period != 0) {
        in.band_due_ms = steady_ms + period * 1000;
    }
    quote_line(in, sequence, std::string(",\"ap\":\"") + indicator + "\"");
}

void Model::luld_pause(Instrument& in, std::uint32_t seconds) {
    const std::uint64_t now_ns = wall();
    trading_action(in, 'P', "LUDP", now_ns);
    empty_all_quotes(in, now_ns);
    ++counters.pauses;
    send_band(in, 'D', now_ns);
    append(collar_message(in, wall(), now_ns));
    ++counters.collars;
    in.quote_resume_ms = seconds == 0 ? 0 : steady_ms + std::uint64_t{seconds} * 1000;
    in.trade_resume_ms = 0;
    const std::int64_t ref = price_of(in.price);
    say("bench: %s LULD pause at seq %llu (collar %.2f / %.2f), resuming in %u s\n", in.symbol.c_str(),
        ull(next_sequence - 1), static_cast<double>(cut_to_cents(ref - ref / 20)) / 1e6,
        static_cast<double>(cut_to_cents(ref + ref / 20)) / 1e6, seconds);
    flush();
}

void Model::breach_mwcb(std::uint32_t level) {
    const std::uint64_t now_ns = wall();
    Bytes b = header('A', 'D', 'E', ' ', wall(), now_ns);
    b.ch(static_cast<char>('0' + (level > 3 ? 3 : level)));
    const std::uint64_t sequence = append(b.bytes);
    ++counters.mwcb;
    truth_line("{\"seq\":" + std::to_string(sequence) + ",\"mwcb\":" + std::to_string(level) + "}\n");
    say("bench: MWCB level %u breached at seq %llu\n", level, ull(sequence));
    const std::string reason = level == 1 ? "MWC1" : level == 2 ? "MWC2" : "MWC3";
    for (Instrument& in : instruments) {
        if (in.status != 'H' && in.status != 'P') {
            halt(in, reason, level < 3 ? 5 : 0);
        }
    }
    flush();
}

void Model::wipe_out(char market_center) {
    const std::uint64_t t1 = wall();
    append(header('C', 'P', market_center, ' ', wall(), t1).bytes);
    ++counters.wipeouts;
    for (Instrument& in : instruments) {
        const auto found = in.quotes.find(static_cast<unsigned char>(market_center));
        if (found == in.quotes.end() || !found->second.present) {
            continue;
        }
        Quote& q = found->second;
        q.present = false;
        q.bid = q.ask = 0;
        q.bid_size = q.ask_size = 0;
        publish_quote(in, market_center, 'E', t1);
    }
    say("bench: quote wipe-out of participant %c at seq %llu\n", market_center, ull(next_sequence - 1));
    flush();
}

}  // namespace tessel::model
