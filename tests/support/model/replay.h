#pragma once

// The program and the model side by side: the same options, the same clock, the same orders, and after each
// step one comparison of everything that came out.

#include "app/scenario_events.h"
#include "snapshot/spin.h"
#include "support/model/model.h"
#include "support/test_market.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tessel::model {

// The scenario as the text that the program reads.
std::string scenario_text(const ScenarioSettings& settings);

struct Replay {
    explicit Replay(const Options& options);

    Model model;
    testing::TestMarket market;
    testing::StderrCapture standard_error;

    // Each step is made on both sides.
    void start_of_day();
    void advance_ms(std::uint64_t ms);
    void tick();
    void scenario_events();
    void heartbeat();
    void command(const std::string& line);
    void compare_files();  // book and BBO texts
    void compare_spin();

    // Compares what the last steps put out. "" when all is equal; else what differs, with the step and the
    // seeds.
    std::string first_difference();

private:
    void compare_messages();
    void compare_packets();
    void compare_texts();
    void compare_state();
    void note(const std::string& what);

    ScenarioMarks marks_;
    SpinBuffer spin_;
    std::int32_t interval_ms_ = 100;
    std::string last_step_;
    std::string found_;
    std::size_t comparisons_ = 0;
    std::size_t compared_messages_ = 0;
    std::size_t compared_packets_ = 0;
    std::size_t compared_truth_ = 0;
    std::size_t compared_err_ = 0;
    std::string program_err_;
};

// One random command line for this market, mostly sensible. Resumptions outnumber halts, so that the market
// goes on.
std::string random_command(std::mt19937_64& random, const Options& options);

}  // namespace tessel::model
