#include "simulator/plan.h"

#include <cstdio>
#include <iterator>

namespace tessel::simulator {

namespace {

template <class Entry, std::size_t count>
const Entry& one_of(SplitMix& random, const Entry (&entries)[count]) {
    return entries[random.below(count)];
}

// Mostly everyday prices; now and then one at an edge.
std::string draw_price(SplitMix& random) {
    static const char* const odd[] = {"0.01", "0.02",        "0.05",      "655.35", "655.36", "540000",
                                      "0",    "-12.5",       "1e300",     "nan",    "inf",    "-1e300",
                                      "9.99", "99999999.99", "0.0049999", "655.34"};
    if (random.once_in(6)) {
        return one_of(random, odd);
    }
    return std::to_string(1 + random.below(600)) + "." + std::to_string(10 + random.below(240));
}

// Distinct in the first eleven letters, which is all that the wire distinguishes.
std::string draw_symbols(SplitMix& random) {
    static const std::size_t counts[] = {1, 1, 2, 2, 3, 3, 3, 4, 5, 12};
    const std::size_t count = random.once_in(40) ? 0 : one_of(random, counts);
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        std::string symbol(1, static_cast<char>('A' + i));
        const std::size_t letters = random.once_in(4) ? 1 + random.below(12) : 1 + random.below(5);
        while (symbol.size() < letters) {
            symbol += static_cast<char>('A' + random.below(26));
        }
        if (i == 1 && random.once_in(30)) {
            text += ",";  // an instrument without a name, at its default price
            continue;
        }
        text += (i == 0 ? "" : ",") + symbol;
        text += random.once_in(12) ? "" : ":" + draw_price(random);
    }
    return text;
}

std::string draw_scenario(SplitMix& random) {
    static const char* const keys[] = {"halt_after", "halt_secs",  "pause_after",   "pause_secs",
                                       "band_every", "trf_every",  "cancel_every",  "correct_every",
                                       "mwcb_level", "mwcb_after", "odd_lot_every", "asof_every",
                                       "no_such_key"};
    std::string text;
    for (std::size_t count = random.below(9); count > 0; --count) {
        text += text.empty() ? "" : ",";
        text += one_of(random, keys);
        text += '=' + (random.once_in(20) ? std::string("x") : std::to_string(random.below(8)));
    }
    return text;
}

std::uint32_t draw_period(SplitMix& random) {
    return random.once_in(3) ? static_cast<std::uint32_t>(2 + random.below(12)) : 0;
}

}  // namespace

RunPlan draw_plan(std::uint64_t seed) {
    static const char* const participants[] = {
        "QNPZKVD", "QNPZKVD", "QNPZKVD", "QNPZKVD", "D", "QQND", "NP", "QD", "", "Z", "QNPZKVDABCEFGH"};
    static const double steps[] = {0.8, 0.8, 0.8, 0.8, 0.8, 5, 20, 120, 0, 1e6, 1e9, -3};
    static const char* const sessions[] = {"UTPBENCH01", "UTPBENCH01", "X", "", "LONGER-THAN-TEN"};
    static const std::uint64_t pass_times[] = {5, 50, 100, 100, 250, 700};
    static const unsigned losses[] = {0, 0, 3, 15, 40};
    SplitMix random{seed};
    RunPlan plan;
    plan.seed = seed;
    plan.market.symbols = draw_symbols(random);
    plan.market.participants = one_of(random, participants);
    plan.market.scenario = draw_scenario(random);
    plan.market.seed = random.next();
    plan.market.step_bps = one_of(random, steps);
    plan.market.truth = !random.once_in(16);
    plan.market.wall_step_ns = random.below(3);
    plan.market.session = one_of(random, sessions);
    if (random.once_in(2)) {
        plan.faults.drop_every = draw_period(random);
        plan.faults.dup_every = draw_period(random);
        plan.faults.reorder_every = draw_period(random);
        plan.faults.drop_burst_start = 1 + random.below(20);
        plan.faults.drop_burst_length = static_cast<std::uint32_t>(random.below(5));
    }
    plan.passes = 10 + random.below(240);
    plan.pass_ms = one_of(random, pass_times);
    plan.interval_ms = static_cast<std::int32_t>(random.once_in(4) ? random.below(300) : plan.pass_ms);
    plan.command_odds = random.once_in(5) ? 0 : 2 + random.below(10);
    plan.fault_odds = random.once_in(2) ? 0 : 4 + random.below(20);
    plan.join_odds = random.once_in(4) ? 0 : 15 + random.below(40);
    plan.request_odds = random.once_in(4) ? 0 : 3 + random.below(20);
    for (std::size_t count = random.below(3); count > 0; --count) {
        plan.receiver_loss.push_back(one_of(random, losses));
    }
    return plan;
}

std::string describe(const RunPlan& plan) {
    char numbers[400];
    std::snprintf(numbers, sizeof numbers,
                  "  step_bps %g, %zu passes of %llu ms, interval %d ms, truth %s, session '%s'\n"
                  "  faults: drop_every %u dup_every %u reorder_every %u burst %llu:%u\n"
                  "  odds: command %llu fault %llu join %llu request %llu; receivers %zu\n",
                  plan.market.step_bps, plan.passes, static_cast<unsigned long long>(plan.pass_ms),
                  plan.interval_ms, plan.market.truth ? "on" : "off", plan.market.session.c_str(),
                  plan.faults.drop_every, plan.faults.dup_every, plan.faults.reorder_every,
                  static_cast<unsigned long long>(plan.faults.drop_burst_start),
                  plan.faults.drop_burst_length, static_cast<unsigned long long>(plan.command_odds),
                  static_cast<unsigned long long>(plan.fault_odds),
                  static_cast<unsigned long long>(plan.join_odds),
                  static_cast<unsigned long long>(plan.request_odds), plan.receiver_loss.size());
    return "  symbols '" + plan.market.symbols + "' participants '" + plan.market.participants +
           "' scenario '" + plan.market.scenario + "'\n" + numbers;
}

}  // namespace tessel::simulator
