#include "engine/circuit_breaker.h"
#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/trade_revisions.h"
#include "engine/wipe_out.h"
#include "reference/generated.h"
#include "support/test_market.h"
#include "wire/admin_messages.h"
#include "wire/quote_messages.h"

#include <algorithm>
#include <stdexcept>

namespace tessel::reference {

namespace {

using testing::Bytes;
using testing::TestMarket;

constexpr std::size_t golden_messages = 500;

std::string text_of(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// Enters a message of each kind that `market` sent from number `first` on and that has none yet: the first,
// or the first of the longest ones where appendages may follow.
void take_samples(std::vector<Sample>& samples, const TestMarket& market, std::uint64_t first) {
    const std::vector<Sample> before = samples;
    const std::vector<std::string> lines = market.truth_lines();
    for (std::uint64_t sequence = first; sequence <= market.last(); ++sequence) {
        const std::string message = text_of(market.message(sequence));
        const layout::Message* const layout = layout::find_message(message[1], message[2]);
        const auto row = static_cast<std::size_t>(layout - layout::messages);
        Sample& sample = samples.at(row);
        const bool is_longer = layout->is_open() && message.size() > sample.message.size();
        if (!before[row].message.empty() || (!sample.message.empty() && !is_longer)) {
            continue;
        }
        const std::string start = "{\"seq\":" + std::to_string(sequence) + ",";
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&](const std::string& each) { return each.starts_with(start); });
        sample.message = message;
        sample.truth_line = line == lines.end() ? "" : *line;
    }
}

// The events that the golden run, which nobody steers, does not have.
void steer(TestMarket& market) {
    SipEngine& engine = market.engine;
    Instrument& first = market.at(0);
    const std::uint64_t now_ns = market.clock.simulated_wall_ns;
    cancel_trade(engine, first, now_ns);
    correct_trade(engine, first, now_ns);
    emit_asof(engine, first);
    halt_instrument(engine, first, "T1", 5);
    market.run_ticks(1);
    luld_pause(engine, market.at(1), 5);
    wipe_out(engine, 'N');
    breach_mwcb(engine, 1);
}

std::string text_of(const MessageWriter& writer) {
    return {reinterpret_cast<const char*>(writer.bytes.get()), writer.size};
}

std::string end_of_snapshot(const TestMarket& market) {
    MessageWriter writer;
    build_end_of_snapshot(writer, market.clock.simulated_wall_ns, market.last());
    return text_of(writer);
}

// The two kinds that no event of the market makes.
std::string odd_lot_update(char type, std::uint64_t sip_time) {
    const OddLotQuote orders[] = {{'Q', 'B', 190'010'000, 41, {}}, {'Q', 'A', 190'020'000, 7, {}}};
    QuoteRecord record;
    record.header.market_center = 'Q';
    record.header.sip_time = sip_time;
    record.header.participant_time = sip_time - 1;
    record.symbol = type == 'A' ? "AAPL" : "LONGSYMBOL";
    record.odd_list_ind = type == 'A' ? '2' : '3';
    record.odd_lots = orders;
    record.odd_lot_count = std::size(orders);
    MessageWriter writer;
    build_quote(writer, record, type);
    return text_of(writer);
}

}  // namespace

std::vector<Sample> make_samples() {
    const testing::StderrCapture quiet;
    std::vector<Sample> samples;
    for (const layout::Message& each : layout::messages) {
        samples.push_back({&each, {}, {}});
    }
    TestMarket market;
    market.start_of_day();
    while (market.last() < golden_messages) {
        market.run_ticks(1);
    }
    take_samples(samples, market, 1);
    const std::uint64_t steered = market.last() + 1;
    steer(market);
    take_samples(samples, market, steered);
    TestMarket expensive({.symbols = "LONGSYMBOL:700.00"});
    expensive.start_of_day();
    take_samples(samples, expensive, 1);
    for (Sample& sample : samples) {
        if (sample.layout->kind == "end_of_snapshot") {
            sample.message = end_of_snapshot(market);
        } else if (sample.message.empty() && sample.layout->category == 'Q') {
            sample.message = odd_lot_update(sample.layout->type, market.clock.simulated_wall_ns);
        }
        if (sample.message.empty()) {
            throw std::runtime_error("no sample of " + std::string(sample.layout->kind));
        }
    }
    return samples;
}

}  // namespace tessel::reference
