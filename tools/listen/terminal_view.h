#pragma once

#include "mold/sequencer.h"
#include "receiver/market_state.h"

#include <cstdint>
#include <string>

// The market on a terminal: a line for each symbol and a foot line for the reception.
namespace tessel::listen {

struct ViewSize {
    unsigned rows = 24;
    unsigned columns = 80;
};

// What the foot line says beside the sequencer's counters.
struct ViewStatus {
    double messages_a_second = 0;
    std::uint64_t kernel_drops = 0;
    std::string note;  // such as "reading the Snap-Shot"
};

// The picture as plain lines, none longer than the terminal is wide: the heading, as many instruments as fit
// (in directory order, with a line that says how many do not), and the foot line last.
std::string render_view(const receiver::Market& market, const receiver::SequencerCounters& counters,
                        const ViewStatus& status, ViewSize size);

// The size of the terminal on standard output.
ViewSize terminal_size();

// Switches standard output to the alternate screen and back.
void open_view();
void close_view();

// Puts the picture on the screen in one write.
void show_view(const std::string& picture);

}  // namespace tessel::listen
