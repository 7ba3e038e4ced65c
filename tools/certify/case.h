#pragma once

#include "common/timeline.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tessel::certify {

// A case of the catalog: a feed, what is done to it, and what a handler must write of it.

// One [[traffic]] table: `kind` and its other values, numbers as texts. traffic.h says which kinds there are.
struct Traffic {
    std::string kind;
    std::map<std::string, std::string> values;
};

enum class Start : std::uint8_t { before, late };
enum class Missing : std::uint8_t { none, dropped };
enum class Mismatched : std::uint8_t { none, after_loss };

// What must come out.
struct Expectation {
    std::vector<std::string> members;  // each compared in one line at least
    std::vector<std::string> compare;  // the only members compared; empty: all that the handler gives
    Missing missing = Missing::none;
    Mismatched mismatched = Mismatched::none;
    bool from_first = false;
    double wait_seconds = 2;
};

struct LoadPlan {
    std::vector<std::uint64_t> rates;  // messages a second, rising; empty for all but load cases
    bool bisect = false;
    std::uint64_t pass_rate = 0;
};

// One case file, GROUP/CASE.toml.
struct Case {
    std::string name;   // "loss/one_packet"
    std::string group;  // "loss"
    std::string file;   // where it was read
    std::string title;
    std::string proves;
    std::string why;
    std::string page;  // "docs/receiving.md#asking-for-a-gap"

    std::vector<std::string>
        feed_options;                // of the feed's command line, addresses, outputs and seed excluded
    std::string scenario;            // the text of TESSEL_SCENARIO
    unsigned generated_symbols = 0;  // number of made-up symbols that replace the list; 0: none

    double seconds = 3;
    Start start = Start::before;
    double late_after = 1.5;
    common::Timeline timeline;
    std::vector<double> restart_at;
    unsigned feeds = 1;
    bool same_session = false;
    double busy_seconds = 0;

    std::vector<Traffic> traffic;
    Expectation expect;
    LoadPlan load;
};

}  // namespace tessel::certify
