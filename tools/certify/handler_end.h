#pragma once

#include "certify/market_run.h"

// The end of a case's handlers.
namespace tessel::certify {

// SIGINT, 5 s, SIGTERM, 2 s, SIGKILL, to each handler's process group; then every other process that a
// handler has started is killed. False with a problem when a handler had to be killed, or crashed on its way
// out.
bool end_handlers(MarketRun& run);

// SIGKILL to whatever the handlers have started. Feeds and traffic stay.
void kill_handlers(MarketRun& run);

}  // namespace tessel::certify
