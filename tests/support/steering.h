#pragma once

#include "engine/sip_engine.h"
#include "snapshot/spin.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessel::testing {

// A small generator for drivers of random runs: one word of state, the same numbers everywhere.
struct SplitMix {
    std::uint64_t state = 0;

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15u;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
        return mixed ^ (mixed >> 31);
    }

    // A number below count (at least 1); the bias does not matter here.
    std::uint64_t below(std::uint64_t count) {
        return next() % count;
    }

    // True once in that many times.
    bool once_in(std::uint64_t count) {
        return below(count) == 0;
    }
};

// A control command that moves the market: halts, pauses, resumptions, bands, breakers, wipe-outs, prints and
// revisions of an instrument or center of this engine, now and then of one that is not there.
std::string random_command(SplitMix& random, const SipEngine& engine);

// Category and type of every message of a spin, one after the other: "CICOCO...".
std::string spin_messages_kinds(const SpinBuffer& spin);

}  // namespace tessel::testing
