#include "engine/scenario.h"
#include "engine/trade_revisions.h"
#include "simulator/simulation.h"

#include <cstring>
#include <iterator>

namespace tessel::simulator {

const std::vector<CanaryRow> canary_rows = {
    {"history_byte", "history"},
    {"number_skipped", "sequence"},
    {"counter", "counters"},
    {"truth_size", "truth"},
    {"truth_line_lost", "truth"},
    {"packet_byte", "packets"},
    {"packet_lost", "faults"},
    {"fault_unasked", "faults"},
    {"fault_counter", "faults"},
    {"heartbeat", "heartbeats"},
    {"reply_byte", "retransmission"},
    {"request_counter", "counters"},
    {"message_hidden", "receivers"},
    {"spin_byte", "joiners"},
    {"status_jump", "status"},
    {"action_number", "status"},
    {"trade_id", "trade ids"},
    {"statistics", "statistics"},
    {"trade_passed_over", "revisions"},
    {"nbbo_size", "state"},
    {"band", "state"},
    {"quote_price", "state"},
    {"nbbo_on_the_wire", "messages"},
    {"mpid_quote", "mpid quotes"},
    {"answer", "answers"},
    {"draw_added", "determinism"},
};

bool plants(Simulation& sim, std::string_view name) {
    if (sim.canary.name != name || sim.canary.planted || sim.pass < sim.canary.from_pass) {
        return false;
    }
    sim.canary.planted = true;
    return true;
}

namespace {

// The newest message kept, to be changed without the publisher's knowledge.
unsigned char* last_kept_byte(RetransStore& store) {
    RetransChunk& chunk = store.chunks.back();
    return chunk.bytes.get() + chunk.used - 1;
}

void plant_in_publisher(Simulation& sim) {
    MoldPublisher& publisher = sim.market.publisher;
    if (plants(sim, "history_byte")) {
        *last_kept_byte(publisher.history) ^= 1;
    }
    if (publisher.packet_count == 0 && plants(sim, "number_skipped")) {
        ++publisher.next_sequence;
        ++publisher.packet_first_sequence;
        // The publisher's own assertion would end the program at the next request.
        sim.receivers.clear();
        sim.stopped = true;
    }
    if (plants(sim, "fault_unasked")) {
        ++publisher.faults.pending_reorders;
    }
    if (plants(sim, "fault_counter")) {
        ++publisher.faults_dropped;
    }
    if (plants(sim, "request_counter")) {
        ++publisher.retrans_served;
    }
}

void plant_in_engine(Simulation& sim) {
    if (plants(sim, "counter")) {
        FeedStats& stats = sim.market.engine.scenario->stats;
        std::uint64_t values[sizeof stats / sizeof(std::uint64_t)];
        std::memcpy(values, &stats, sizeof stats);
        ++values[sim.plan.seed % std::size(values)];
        std::memcpy(&stats, values, sizeof stats);
    }
    if (plants(sim, "draw_added")) {
        next_u64(*sim.market.engine.rng);
    }
}

// Cancels the second newest trade that could be canceled instead of the newest.
void pass_over_a_trade(Simulation& sim, Instrument& instrument) {
    TradeRecord* newest = nullptr;
    for (auto trade = instrument.trades.rbegin(); trade != instrument.trades.rend(); ++trade) {
        if (!trade->live || trade->conditions[1] != ' ' || trade->conditions[3] == 'M') {
            continue;
        }
        if (newest == nullptr) {
            newest = &*trade;
        } else if (plants(sim, "trade_passed_over")) {
            newest->live = false;
            cancel_trade(sim.market.engine, instrument, sim.market.clock.simulated_wall_ns);
            newest->live = true;
        }
    }
}

void plant_in_instrument(Simulation& sim, Instrument& instrument) {
    if (plants(sim, "status_jump")) {
        instrument.status = instrument.status == 'T' ? 'Q' : 'T';
    }
    if (plants(sim, "action_number")) {
        ++instrument.action_seq;
    }
    if (plants(sim, "statistics")) {
        instrument.high += cent;
    }
    if (plants(sim, "nbbo_size")) {
        instrument.nbbo.bid_size += 100;
    }
    if (plants(sim, "band")) {
        instrument.luld_upper += cent;
        instrument.luld_lower += instrument.luld_lower == 0 ? cent : 0;
    }
    if (instrument.quote_slots > 0 && instrument.quotes[0].quoted && plants(sim, "quote_price")) {
        instrument.quotes[0].ask += cent;
    }
    for (std::size_t slot = 0; slot < instrument.trade_slots; ++slot) {
        if (instrument.trade_stats[slot].last_trade_id != 0 && plants(sim, "trade_id")) {
            ++instrument.trade_stats[slot].last_trade_id;
        }
    }
    pass_over_a_trade(sim, instrument);
}

}  // namespace

void plant_in_market(Simulation& sim) {
    plant_in_publisher(sim);
    plant_in_engine(sim);
    for (Instrument& instrument : sim.market.engine.instruments) {
        plant_in_instrument(sim, instrument);
    }
}

}  // namespace tessel::simulator
