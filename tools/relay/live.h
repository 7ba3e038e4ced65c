#pragma once

#include "relay/options.h"

#include <cstdint>

namespace tessel::relay {

// Relays a group until SIGINT, SIGTERM, SIGHUP or "stop". Returns the exit status.
int run_live(const Options& options);

// Catches the signals that end a run; true from stop_asked() on the first.
void catch_stop_signals();
bool stop_asked();

// The system's steady clock in nanoseconds.
std::int64_t steady_now_ns();

}  // namespace tessel::relay
