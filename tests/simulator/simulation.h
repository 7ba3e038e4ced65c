#pragma once

#include "app/control_channel.h"
#include "app/scenario_events.h"
#include "simulator/message_audit.h"
#include "simulator/packet_audit.h"
#include "simulator/plan.h"
#include "simulator/receiver.h"
#include "simulator/stderr_tape.h"
#include "simulator/violations.h"
#include "snapshot/spin.h"
#include "support/feed_follower.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::simulator {

// A breakage to be planted once, from a random pass on as soon as the run offers an occasion. An empty name
// plants nothing.
struct Canary {
    std::string name;
    std::size_t from_pass = 0;
    bool planted = false;
};

// The canaries' names and the invariant that has to report each.
struct CanaryRow {
    const char* name;
    const char* invariant;
};
extern const std::vector<CanaryRow> canary_rows;

// One run in memory: the feed, steered like the program's loop steers it, and everybody who listens.
struct Simulation {
    explicit Simulation(const RunPlan& run_plan);

    RunPlan plan;
    testing::TestMarket market;
    ScenarioMarks marks;
    std::int32_t interval_ms = 0;
    std::uint64_t start_ms = 0;
    std::uint64_t last_tick_ms = 0;
    SplitMix random;
    Canary canary;
    std::size_t pass = 0;
    bool faultless = false;  // the second run: fault commands are undone immediately
    bool stopped = false;

    std::vector<Bytes> appended;  // every message, taken out of the history as soon as it was there
    testing::FeedFollower follower;
    MessageAudit messages;
    PacketAudit packets;
    std::size_t packets_seen = 0;
    std::size_t truth_bytes = 0;
    std::vector<std::string> marks_due;  // mark lines that the log must have before the next message's
    std::vector<std::unique_ptr<Receiver>> receivers;
    SpinBuffer spin;
    std::uint64_t requests_served = 0;
    std::uint64_t requests_rejected = 0;
    Violations violations;
};

// What a run came to.
struct RunResult {
    std::vector<Violation> violations;
    bool planted = false;
    std::uint64_t messages = 0;
    std::uint64_t joins = 0;
    std::uint64_t commands = 0;
    std::uint64_t requests = 0;
    FeedStats stats;
    std::uint64_t dropped = 0;  // packets
    std::uint64_t duplicated = 0;
    std::uint64_t held = 0;
};

// Plays the run of a seed and checks every invariant; a canary's name plants its breakage.
RunResult play_run(std::uint64_t seed, const std::string& canary, const StderrTape& tape);

// True, once, when this canary is to be planted here and now.
bool plants(Simulation& sim, std::string_view name);

// Plants a canary that changes the feed's own state; right before the state is looked at.
void plant_in_market(Simulation& sim);

// The commands of a pass: sends it, checks its answer.
void run_random_command(Simulation& sim);
void run_random_fault(Simulation& sim);

}  // namespace tessel::simulator
