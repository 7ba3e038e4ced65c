#pragma once

#include "listen/latency.h"
#include "listen/line_file.h"
#include "listen/options.h"
#include "mold/sequencer.h"
#include "receiver/market_state.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

// What the ways of receiving have in common: the sequencer's messages go into the market and out as lines.
namespace tessel::listen {

// One run of the feed, as far as it was received.
struct RunCounters {
    std::uint64_t messages = 0;  // applied in order
    std::uint64_t first = 0;     // the first one's number
    std::uint64_t last = 0;
    std::uint64_t lost = 0;          // abandoned below end_sequence
    std::uint64_t lines_before = 0;  // lines written before the run began
};

struct Listener {
    Options options;
    receiver::Market market;
    receiver::Sequencer sequencer;
    Output output;
    Output times;                    // of --times
    std::optional<Latency> latency;  // with --latency
    bool measures_times = false;     // one of the two
    std::uint64_t taken_ns = 0;      // with --latency: when the packet at work was taken, or the timer ran;
                                     // since the epoch, 0 when reading a capture

    // Messages from this number on are no longer accepted: set when the end has come.
    std::uint64_t end_sequence = UINT64_MAX;
    bool finished = false;  // --count is reached
    RunCounters run;        // the current run
    std::uint64_t restarts = 0;

    // All runs together.
    std::uint64_t messages = 0;
    std::uint64_t lost = 0;
    std::uint64_t losses = 0;  // stretches of lost messages
    std::uint64_t undecoded = 0;
    std::uint64_t spin_messages = 0;
    std::uint64_t kernel_drops = 0;
    int socket_buffer_bytes = 0;
    bool snapshot_failed = false;  // requested and not received
    bool capture_damaged = false;  // a part of the capture could not be read

    // May be empty. Called when a new run has begun.
    std::function<void()> after_restart;
};

// Sets up the sequencer with sinks that point at `listener`, which therefore must stay where it is. Requests
// go to `request`, when that is set. Opens the output: false, with the reason reported, when that fails.
bool prepare_listener(Listener& listener, const Options& options,
                      std::function<void(const unsigned char*, std::size_t)> request);

// Takes one message of a Snap-Shot spin: into the market, and out as a line when decoding.
void take_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length);

// Takes one message of a spin found in a capture: out as a line only. A capture may hold several spins, at
// any moment, so they do not go into the market.
void take_captured_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length);

// Prints the summary, closes the outputs and returns the program's exit status.
ExitStatus finish_listener(Listener& listener);

// The lines to receive: those of --line, or the one of --mcast and --port.
std::vector<LineOption> lines_of(const Options& options);

// Reports that the kernel had no room for packets, and what to do about it.
void report_kernel_drops(const Listener& listener);

// Receives from the network until the options' end, or until a signal; from a capture file until its end.
ExitStatus run_live(const Options& options);
ExitStatus run_replay(const Options& options);

}  // namespace tessel::listen
