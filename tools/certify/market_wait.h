#pragma once

#include "certify/market_run.h"

#include <functional>

// Waiting while a case runs: what the handlers print and what is on the wire is taken meanwhile, and an end
// of anything that should not end is noticed.
namespace tessel::certify {

// Waits until `is_done`, `seconds` at most. True when it is; false when the time has passed, and when
// something went wrong, which is then in the run's `problem`.
bool wait_for(MarketRun& run, double seconds, const std::function<bool()>& is_done);

// Waits until that moment on the steady clock. False only when something went wrong.
bool wait_until(MarketRun& run, double moment);

// Waits for the end of a child, `seconds` at most, whatever happens meanwhile.
void wait_for_end(MarketRun& run, pid_t child, double seconds);

// Waits for heartbeats on a market that is frozen: as long as the case says, and longer while a handler still
// writes, since it may have a slow machine.
bool await_silence(MarketRun& run);

}  // namespace tessel::certify
