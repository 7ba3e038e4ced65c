#pragma once

#include <cstddef>
#include <string>

namespace tessel::simulator {

// Takes what the feed writes to standard error, run by run: the fault lines are part of what is checked, and
// thousands of runs would drown everything else.
struct StderrTape {
    int file = -1;
    int terminal = -1;  // the real standard error
};

// Puts the tape in the place of standard error until the program ends.
StderrTape start_tape();

// Forgets what was written so far.
void rewind_tape(const StderrTape& tape);

// What was written since.
std::string read_tape(const StderrTape& tape);

// Copies the tape's last bytes to the real standard error; safe in a signal handler.
void spill_tape(const StderrTape& tape);

}  // namespace tessel::simulator
