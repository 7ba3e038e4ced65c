// Encoding of each quote form, with the appendages that the feed sends most, and of the trade reports.

#include "wire/quote_messages.h"
#include "wire/trade_messages.h"

#include <benchmark/benchmark.h>

#include <array>

namespace tessel {
namespace {

constexpr std::array<OddLotQuote, 1> one_order{{{'Q', 'B', 189'900'000, 40, ""}}};

QuoteRecord quote(char nbbo, char best, char list) {
    QuoteRecord record;
    record.header.market_center = 'Q';
    record.header.sip_time = 1'700'000'000'000'000'000;
    record.header.participant_time = 1'700'000'000'000'000'000;
    record.symbol = "AAPL";
    record.bid = 190'000'000;
    record.ask = 190'010'000;
    record.bid_size = 300;
    record.ask_size = 400;
    record.condition = 'R';
    record.nbbo_ind = nbbo;
    record.nbbo_condition = 'A';
    record.nbbo_bid_market_center = 'P';
    record.nbbo_ask_market_center = 'Z';
    record.nbbo_bid = 190'000'000;
    record.nbbo_ask = 190'010'000;
    record.nbbo_bid_size = 400;
    record.nbbo_ask_size = 500;
    record.odd_best_ind = best;
    record.odd_bid_market_center = 'K';
    record.odd_ask_market_center = 'V';
    record.odd_bid = 190'000'000;
    record.odd_ask = 190'010'000;
    record.odd_bid_size = 11;
    record.odd_ask_size = 22;
    record.odd_list_ind = list;
    if (list != '0') {
        record.odd_lots = one_order.data();
        record.odd_lot_count = one_order.size();
    }
    return record;
}

void build(benchmark::State& state, QuoteRecord record, char type) {
    MessageWriter writer;
    std::size_t bytes = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(record.bid += 10'000);
        build_quote(writer, record, type);
        benchmark::DoNotOptimize(writer.bytes.get());
        benchmark::ClobberMemory();
        bytes = writer.size;
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

void ShortQuote(benchmark::State& state) {
    build(state, quote('0', '0', '0'), 'C');
}
BENCHMARK(ShortQuote);

void ShortQuote_ShortNbbo(benchmark::State& state) {
    build(state, quote('2', '0', '0'), 'C');
}
BENCHMARK(ShortQuote_ShortNbbo);

void ShortQuote_NbboAndOddLots(benchmark::State& state) {
    build(state, quote('2', '2', '2'), 'C');
}
BENCHMARK(ShortQuote_NbboAndOddLots);

void LongQuote(benchmark::State& state) {
    build(state, quote('0', '0', '0'), 'D');
}
BENCHMARK(LongQuote);

void LongQuote_NbboAndOddLots(benchmark::State& state) {
    build(state, quote('3', '3', '3'), 'D');
}
BENCHMARK(LongQuote_NbboAndOddLots);

void LongQuote_OfTheAdf(benchmark::State& state) {
    QuoteRecord record = quote('3', '5', '5');
    record.header.market_center = 'D';
    record.adf_mpid_ind = '2';
    record.bid_mpid = "ABCD";
    record.ask_mpid = "EFGH";
    build(state, record, 'D');
}
BENCHMARK(LongQuote_OfTheAdf);

void MpidQuote(benchmark::State& state) {
    QuoteRecord record = quote('0', '0', '0');
    record.bid_mpid = "ABCD";
    build(state, record, 'M');
}
BENCHMARK(MpidQuote);

void trade(benchmark::State& state, bool short_form) {
    MessageWriter writer;
    TradeReport report;
    report.symbol = "AAPL";
    report.price = 190'000'000;
    report.size = 300'000'000;
    report.conditions = "@   ";
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(++report.trade_id);
        build_trade(writer, report, short_form);
        benchmark::DoNotOptimize(writer.bytes.get());
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(writer.size);
}

void ShortTrade(benchmark::State& state) {
    trade(state, true);
}
BENCHMARK(ShortTrade);

void LongTrade(benchmark::State& state) {
    trade(state, false);
}
BENCHMARK(LongTrade);

}  // namespace
}  // namespace tessel

BENCHMARK_MAIN();
