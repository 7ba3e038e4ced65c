// What the parts of a tick cost: draws, the NBBO, a truth line, whole ticks of few and of many instruments,
// and the revisions of a full trade history. Packets are thrown away where they would be sent.

#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "engine/trade_revisions.h"
#include "market/nbbo.h"
#include "market/quote_index.h"
#include "mold/publisher.h"
#include "output/book_file.h"
#include "output/quote_line.h"

#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace tessel {
namespace {

constexpr std::uint64_t seed = 7;

void discard(void* /*context*/, const unsigned char* packet, std::size_t /*length*/) {
    benchmark::DoNotOptimize(packet);
}

std::string symbols_text(std::size_t instruments) {
    std::string text;
    for (std::size_t at = 0; at < instruments; ++at) {
        text += at == 0 ? "S" : ",S";
        text += std::to_string(at % 10'000);
        text += ":" + std::to_string(20 + at % 400) + ".00";
    }
    return text;
}

// A started market. Its truth log, if any, is a file in memory that has no name: nothing is left over.
struct Market {
    Clock clock;
    Random rng;
    Scenario scenario;
    MoldPublisher publisher;
    SipEngine engine;

    Market(std::size_t instruments, bool truth) {
        seed_random(rng, seed);
        publisher.sink.send = discard;
        reset_publisher(publisher, clock, "BENCH");
        init_engine(engine, publisher, rng, scenario, clock, "QNPZKVD", 0.8, true);
        std::string error;
        add_instruments(engine, symbols_text(instruments), error);
        if (truth) {
            std::string name = "/dev/shm/tessel-bench-XXXXXX";
            const int file = mkstemp(name.data());
            open_truth_log(engine.truth, name);
            if (file < 0 || !engine.truth.enabled) {
                std::abort();  // a silent truth log would be measured as a fast one
            }
            unlink(name.c_str());
            close(file);
        }
        tessel::start_of_day(engine);
    }
    ~Market() {
        close_truth_log(engine.truth);
    }
    Market(const Market&) = delete;
    Market& operator=(const Market&) = delete;

    // Gives the file's memory back; not part of what is measured.
    bool empty_truth() const {
        return engine.truth.fd < 0 || ftruncate(engine.truth.fd, 0) == 0;
    }
};

// ------------------------------------------------------------------ draws

void Draw_UniformInt(benchmark::State& state) {
    Random rng;
    seed_random(rng, seed);
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(uniform_int(rng, 1, 8));
    }
}
BENCHMARK(Draw_UniformInt);

void Draw_UniformReal(benchmark::State& state) {
    Random rng;
    seed_random(rng, seed);
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(uniform_real(rng));
    }
}
BENCHMARK(Draw_UniformReal);

void Draw_NormalDeviate(benchmark::State& state) {
    Random rng;
    seed_random(rng, seed);
    NormalDeviates deviates;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(normal_deviate(deviates, rng));
    }
}
BENCHMARK(Draw_NormalDeviate);

// ------------------------------------------------------------------ NBBO

// Seven centers, each time of another instrument, as a tick meets them.
void Nbbo_SevenCenters_FromTheQuotes(benchmark::State& state) {
    const auto market = std::make_unique<Market>(256, false);
    std::size_t at = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(compute_nbbo(market->engine.instruments[at++ % 256]));
    }
}
BENCHMARK(Nbbo_SevenCenters_FromTheQuotes);

void Nbbo_SevenCenters_FromTheIndex(benchmark::State& state) {
    const auto market = std::make_unique<Market>(256, false);
    std::size_t at = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const Instrument& instrument = market->engine.instruments[at++ % 256];
        benchmark::DoNotOptimize(find_best_quotes(instrument));
    }
}
BENCHMARK(Nbbo_SevenCenters_FromTheIndex);

// ------------------------------------------------------------------ lines

constexpr std::int64_t lines_before_emptying = 100'000;

// Formatted and written, a system call a line.
void TruthQuoteLine_Written(benchmark::State& state) {
    const auto market = std::make_unique<Market>(256, true);
    std::int64_t lines = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const Instrument& instrument = market->engine.instruments[static_cast<std::size_t>(lines) % 256];
        write_quote_line(market->engine.truth, instrument, 1'000'000);
        if (++lines % lines_before_emptying == 0) {
            state.PauseTiming();
            market->empty_truth();
            state.ResumeTiming();
        }
    }
    if (!market->engine.truth.enabled) {
        state.SkipWithError("the truth log cannot be written");
    }
}
BENCHMARK(TruthQuoteLine_Written);

// The same into /dev/null: what formatting and an almost empty system call cost.
void TruthQuoteLine_ToNowhere(benchmark::State& state) {
    const auto market = std::make_unique<Market>(256, false);
    open_truth_log(market->engine.truth, "/dev/null");
    std::size_t at = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        write_quote_line(market->engine.truth, market->engine.instruments[at++ % 256], 1'000'000);
    }
}
BENCHMARK(TruthQuoteLine_ToNowhere);

void BookMember_Formatted(benchmark::State& state) {
    const auto market = std::make_unique<Market>(256, false);
    std::string text;
    std::size_t at = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        text.clear();
        append_book_member(text, market->engine.instruments[at++ % 256]);
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BookMember_Formatted);

// ------------------------------------------------------------------ whole ticks

// range(0) instruments, range(1) whether there is a truth log. "a_message" is the figure to look at.
void Tick(benchmark::State& state) {
    const auto market =
        std::make_unique<Market>(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
    std::uint64_t now_ms = 0;
    std::uint64_t emptied_at = market->publisher.next_sequence;
    const std::uint64_t first = market->publisher.next_sequence;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        run_tick(market->engine, now_ms += 100);
        if (market->publisher.next_sequence - emptied_at >
            static_cast<std::uint64_t>(lines_before_emptying)) {
            state.PauseTiming();
            emptied_at = market->publisher.next_sequence;
            market->empty_truth();
            state.ResumeTiming();
        }
    }
    const auto messages = static_cast<double>(market->publisher.next_sequence - first);
    state.SetItemsProcessed(static_cast<std::int64_t>(messages));
    state.counters["a_message"] =
        benchmark::Counter(messages, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    if (state.range(1) != 0 && !market->engine.truth.enabled) {
        state.SkipWithError("the truth log cannot be written");
    }
}
BENCHMARK(Tick)
    ->ArgNames({"instruments", "truth"})
    ->Args({3, 0})
    ->Args({3, 1})
    ->Args({8000, 0})
    ->Args({8000, 1});

// ------------------------------------------------------------------ revisions

constexpr std::size_t full_history = 100'000;

// An instrument with a full history of regular trades on its centers.
std::unique_ptr<Market> market_with_history() {
    auto market = std::make_unique<Market>(1, false);
    constexpr std::string_view centers = "QNPZKVD";
    TradeHistory& trades = market->engine.instruments[0].trades;
    trades.clear();
    for (std::size_t at = 0; at < full_history; ++at) {
        TradeRecord trade;
        trade.market_center = centers[at % centers.size()];
        trade.conditions = {'@', ' ', ' ', ' '};
        trade.trade_id = at + 1;
        trade.price = static_cast<std::int64_t>(2'000 + at % 37) * cent;
        trade.size = 100 * size_unit;
        trades.push_back(trade);
    }
    return market;
}

void Cancel_FullHistory(benchmark::State& state) {
    const auto market = market_with_history();
    Instrument& instrument = market->engine.instruments[0];
    for (auto iteration : state) {
        static_cast<void>(iteration);
        cancel_trade(market->engine, instrument, 1);
        instrument.trades.back().live = true;  // for the next time
    }
}
BENCHMARK(Cancel_FullHistory)->Unit(benchmark::kMicrosecond);

void Correction_FullHistory(benchmark::State& state) {
    const auto market = market_with_history();
    Instrument& instrument = market->engine.instruments[0];
    for (auto iteration : state) {
        static_cast<void>(iteration);
        correct_trade(market->engine, instrument, 1);
        instrument.trades.pop_back();
        instrument.trades.back().live = true;
    }
}
BENCHMARK(Correction_FullHistory)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tessel

BENCHMARK_MAIN();
