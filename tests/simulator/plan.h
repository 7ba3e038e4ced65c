#pragma once

#include "mold/fault_injector.h"
#include "support/steering.h"
#include "support/test_market.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::simulator {

using testing::Bytes;
using testing::SplitMix;

// What one random run is made with, drawn from its seed. Odds are "once in N passes", 0 never.
struct RunPlan {
    std::uint64_t seed = 0;
    testing::MarketOptions market;
    FaultInjector faults;
    std::size_t passes = 0;
    std::uint64_t pass_ms = 100;  // how far time goes on in each pass
    std::int32_t interval_ms = 100;
    std::uint64_t command_odds = 0;
    std::uint64_t fault_odds = 0;  // of a command that asks for a fault
    std::uint64_t join_odds = 0;
    std::uint64_t request_odds = 0;
    std::vector<unsigned> receiver_loss;  // percent of packets that each receiver loses by itself
};

RunPlan draw_plan(std::uint64_t seed);

// The plan on a few lines, for whoever looks into a failing seed.
std::string describe(const RunPlan& plan);

}  // namespace tessel::simulator
