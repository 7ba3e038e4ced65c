// Goal: a receiver that joins late by a spin has the state of one that saw everything. Method: seeded runs
// rich in events, steered by random commands; at random moments a spin is built and applied to an empty
// receiver, which is compared immediately and again after every pass that follows.

#include "app/control_channel.h"
#include "app/scenario_events.h"
#include "engine/tick.h"
#include "receiver/market_state.h"
#include "support/feed_follower.h"
#include "support/market_difference.h"
#include "support/steering.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::Bytes;
using testing::MarketOptions;
using testing::SplitMix;
using testing::TestMarket;

constexpr std::size_t runs = 60;
constexpr std::size_t passes = 90;
constexpr std::size_t joins_a_run = 6;

// How often the joins of all runs met each state, so that none of them goes untested by chance.
struct Met {
    std::size_t joins = 0;
    std::size_t halted = 0;
    std::size_t paused = 0;
    std::size_t quoting = 0;
    std::size_t resumed = 0;
    std::size_t wiped_out = 0;
    std::size_t best_odd_lot = 0;
    std::size_t best_odd_lot_gone = 0;
    std::size_t no_nbbo = 0;
    std::size_t band_off = 0;
};

struct MarketRun {
    explicit MarketRun(const MarketOptions& options) : market(options) {}

    TestMarket market;
    ScenarioMarks marks;
    std::int32_t interval_ms = 100;
    std::uint64_t applied = 0;
    receiver::Market whole;
    std::vector<std::unique_ptr<receiver::Market>> joined;
    SpinBuffer spin;
};

MarketOptions options_of(SplitMix& random, std::uint64_t seed) {
    static const char* const symbols[] = {"AAPL:190.00,MSFT:410.00,TSLA:250.00",
                                          "BRKA:540000,TENLETTERS:20,X:1", "ONLY:655.35",
                                          "CENT:0.03,NEG:-4,LIM:655.30,LONGSYMBOL1:99"};
    static const char* const participants[] = {"QNPZKVD", "D", "QQND", "NP", "ZD"};
    MarketOptions options;
    options.seed = seed;
    options.symbols = symbols[random.below(4)];
    options.participants = participants[random.below(5)];
    options.step_bps = random.below(3) == 0 ? 120.0 : 0.8;
    options.scenario = "odd_lot_every=" + std::to_string(random.below(5)) +
                       ",halt_after=2,halt_secs=1,pause_after=3,pause_secs=2,trf_every=5,cancel_every=4,"
                       "correct_every=6,asof_every=11,band_every=" +
                       std::to_string(random.below(3));
    options.truth = false;
    return options;
}

void apply_new_messages(MarketRun& run) {
    std::vector<Bytes> fresh;
    testing::read_history(run.market.publisher.history, run.applied + 1, fresh);
    for (const Bytes& message : fresh) {
        ++run.applied;
        receiver::apply_message(run.whole, message.data(), message.size(), run.applied);
        for (const std::unique_ptr<receiver::Market>& joined : run.joined) {
            receiver::apply_message(*joined, message.data(), message.size(), run.applied);
        }
    }
}

void count_met(const MarketRun& run, Met& met) {
    ++met.joins;
    for (const receiver::Instrument& instrument : run.whole.instruments) {
        met.halted += instrument.status == 'H';
        met.paused += instrument.status == 'P';
        met.quoting += instrument.status == 'Q';
        met.resumed += instrument.status == 'T' && instrument.action_sequence > 0;
        met.best_odd_lot += instrument.best_odd_lot.present;
        met.no_nbbo += instrument.nbbo.bid == 0 && instrument.nbbo.ask == 0;
        met.band_off += instrument.band.indicator == 'D';
        bool has_orders = false;
        for (const receiver::CenterQuote& quote : instrument.quotes) {
            met.wiped_out += !quote.present && quote.condition != 'L';
            has_orders = has_orders || !quote.odd_lots.empty();
        }
        met.best_odd_lot_gone += has_orders && !instrument.best_odd_lot.present;
    }
}

// A late joiner: everything before the spin is on the wire first, and the spin's messages have no numbers.
void join(MarketRun& run, Met& met) {
    SipEngine& engine = run.market.engine;
    flush_packet(run.market.publisher);
    apply_new_messages(run);
    count_met(run, met);
    const std::uint64_t spin_time = wall_ns(run.market.clock);
    build_spin(run.spin, engine, spin_time);
    append_end_of_snapshot(run.spin, spin_time, last_sequence(run.market.publisher));
    auto joined = std::make_unique<receiver::Market>();
    ASSERT_EQ(testing::apply_spin(*joined, run.spin), "");
    ASSERT_EQ(joined->snapshot_sequence, run.applied);
    ASSERT_EQ(testing::joiner_difference(run.whole, *joined), "") << "immediately, after " << run.applied;
    run.joined.push_back(std::move(joined));
}

void play(std::uint64_t seed, Met& met) {
    SplitMix random{seed};
    MarketRun run(options_of(random, seed));
    const std::uint64_t start_ms = run.market.clock.simulated_steady_ms;
    const ControlContext control{&run.market.engine, &run.interval_ms};
    run.market.start_of_day();
    for (std::size_t pass = 0; pass < passes; ++pass) {
        run.market.advance_ms(100);
        if (random.below(4) == 0) {
            const std::string command = testing::random_command(random, run.market.engine);
            handle_command(control, command.data(), command.size());
        }
        if (random.below(passes / joins_a_run) == 0) {
            ASSERT_NO_FATAL_FAILURE(join(run, met)) << "seed " << seed << " pass " << pass;
        }
        fire_scenario_events(run.market.engine, run.marks, start_ms, run.market.clock.simulated_steady_ms);
        run_tick(run.market.engine, run.market.clock.simulated_steady_ms);
        apply_new_messages(run);
        for (const std::unique_ptr<receiver::Market>& joined : run.joined) {
            ASSERT_EQ(testing::joiner_difference(run.whole, *joined), "")
                << "seed " << seed << " pass " << pass << " joined after " << joined->snapshot_sequence;
        }
        ASSERT_EQ(testing::engine_difference(run.market.engine, run.whole), "")
            << "seed " << seed << " pass " << pass;
    }
}

TEST(LateJoin, AtRandomMomentsOfSixtyEventfulRuns_StandsWhereAnEarlyReceiverStands) {
    testing::StderrCapture quiet;
    Met met;
    for (std::uint64_t seed = 1; seed <= runs && !HasFatalFailure(); ++seed) {
        play(seed, met);
    }
    EXPECT_GE(met.joins, 200u);
    EXPECT_GE(met.halted, 20u);
    EXPECT_GE(met.paused, 20u);
    EXPECT_GE(met.quoting, 20u);
    EXPECT_GE(met.resumed, 20u);
    EXPECT_GE(met.wiped_out, 20u);
    EXPECT_GE(met.best_odd_lot, 20u);
    EXPECT_GE(met.best_odd_lot_gone, 1u);
    EXPECT_GE(met.no_nbbo, 20u);
    EXPECT_GE(met.band_off, 20u);
}

TEST(LateJoin, BeforeTheFirstTick_HoldsTheStartOfDay) {
    MarketRun run{MarketOptions{}};
    run.market.start_of_day();
    Met met;
    ASSERT_NO_FATAL_FAILURE(join(run, met));
    EXPECT_EQ(run.joined.front()->instruments.size(), 3u);
    EXPECT_EQ(run.joined.front()->instruments[0].quotes.size(), 7u);
}

TEST(LateJoin, WithoutInstruments_HoldsTheRetainedMessagesAndTheDeclineLevels) {
    MarketOptions options;
    options.symbols = "";
    MarketRun run(options);
    run.market.start_of_day();
    Met met;
    ASSERT_NO_FATAL_FAILURE(join(run, met));
    EXPECT_EQ(run.joined.front()->open_centers.size(), 7u);
    EXPECT_EQ(testing::spin_messages_kinds(run.spin), "CICOCOCOCOCOCOCOACAS");
}

TEST(LateJoin, WithoutParticipants_HoldsTheBandsAndNoQuotes) {
    MarketOptions options;
    options.participants = "";
    MarketRun run(options);
    run.market.start_of_day();
    run.market.run_ticks(20);
    Met met;
    ASSERT_NO_FATAL_FAILURE(join(run, met));
    EXPECT_TRUE(run.joined.front()->instruments[0].quotes.empty());
    EXPECT_EQ(run.joined.front()->instruments[0].band.lower, run.market.at(0).luld_lower);
}

TEST(LateJoin, OfAHaltedAndAPausedInstrument_SpinHasTheirActionsAndOneCollar) {
    testing::StderrCapture quiet;
    MarketRun run{MarketOptions{}};
    run.market.start_of_day();
    const ControlContext control{&run.market.engine, &run.interval_ms};
    handle_command(control, "halt AAPL", 9);
    handle_command(control, "luld_pause MSFT", 15);
    Met met;
    ASSERT_NO_FATAL_FAILURE(join(run, met));
    const std::string kinds = testing::spin_messages_kinds(run.spin);
    EXPECT_NE(kinds.find("AHAHACAPAPAPAEQD"), std::string::npos) << kinds;
    EXPECT_EQ(run.joined.front()->instruments[0].reason, "T1");
    EXPECT_EQ(run.joined.front()->instruments[1].reason, "LUDP");
}

// The comparison finds what it is there for: one changed byte anywhere in the state that a spin carries.
TEST(LateJoin, OneChangedByteOfASpin_IsFound) {
    MarketRun run{MarketOptions{}};
    run.market.start_of_day();
    run.market.run_ticks(30);
    flush_packet(run.market.publisher);
    apply_new_messages(run);
    build_spin(run.spin, run.market.engine, 1);
    // Offsets of a long quote: bid's and ask's last byte, sizes, condition.
    for (const std::size_t offset : {55u, 59u, 67u, 71u, 72u}) {
        for (const std::span<const unsigned char> message : spin_messages(run.spin)) {
            if (message[1] != 'Q') {
                continue;
            }
            auto* byte = const_cast<unsigned char*>(message.data()) + offset;
            *byte ^= 1;
            receiver::Market joined;
            EXPECT_EQ(testing::apply_spin(joined, run.spin), "");
            EXPECT_NE(testing::joiner_difference(run.whole, joined), "") << "offset " << offset;
            *byte ^= 1;
        }
    }
}

}  // namespace
}  // namespace tessel
