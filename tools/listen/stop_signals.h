#pragma once

// The signals that ask a receiver to end: SIGINT, SIGTERM and SIGHUP.
namespace tessel::listen {

// Counts those signals from here on; system calls that wait are interrupted by each. After the second one
// SIGALRM follows every second, so that a write to a pipe that nobody reads is interrupted even when the
// signal came just before the call.
void catch_stop_signals();

// A write to a closed pipe or beyond the file size limit fails instead of ending the program. Nor does it end
// when somebody opens the file of --out during the moment in which it is looked at (SIGIO).
void ignore_write_signals();

// How many came so far. The first asks for an orderly end, which may wait for what is missing; the second
// asks not to wait for anything.
int stop_signals();

}  // namespace tessel::listen
