// Plays random runs of the whole feed in memory and checks its invariants after each: see simulation.h.
//
//     tessel_simulator --runs 2000 --seed 1         2,000 runs, seeds 1 to 2000
//     tessel_simulator --runs 1 --seed 1234         one of them again, exactly
//     tessel_simulator --canary packet_lost         plants a breakage; finding it is the success
//     tessel_simulator --canaries                   every canary, a few runs each
//     ... --junit FILE                              one test case a canary, for those who count
//
// Exit status 0 when every run kept every rule (with canaries: when each was found), 1 when not, 2 for a bad
// command line. Many runs must also have met every kind of event: rules that nothing touches hold by chance.

#include "app/reports.h"
#include "simulator/simulation.h"

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace tessel::simulator {
namespace {

struct Arguments {
    std::uint64_t runs = 100;
    std::uint64_t seed = 1;
    std::string canary;
    std::string junit;
    bool all_canaries = false;
    bool verbose = false;
};

constexpr std::uint64_t canary_plantings = 4;    // of each canary
constexpr std::uint64_t canary_seeds_max = 400;  // runs in which to find the occasions
constexpr std::uint64_t runs_that_meet_all = 500;

StderrTape tape;
volatile std::uint64_t playing_seed = 0;

// A crash names its seed and shows the feed's last words; the default action then ends the process.
void tell_crash(int signal_number) {
    spill_tape(tape);
    char text[100];
    const int length = std::snprintf(text, sizeof text, "crashed in the run of seed %llu (signal %d)\n",
                                     static_cast<unsigned long long>(playing_seed), signal_number);
    [[maybe_unused]] const ssize_t written = write(tape.terminal, text, static_cast<std::size_t>(length));
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number);
}

RunResult play_seed(std::uint64_t seed, const std::string& canary) {
    playing_seed = seed;
    return play_run(seed, canary, tape);
}

void print_violations(std::uint64_t seed, const RunResult& result) {
    std::printf("seed %llu breaks %zu rule(s); again with: tessel_simulator --runs 1 --seed %llu\n%s",
                static_cast<unsigned long long>(seed), result.violations.size(),
                static_cast<unsigned long long>(seed), describe(draw_plan(seed)).c_str());
    constexpr std::size_t shown_max = 5;
    for (std::size_t i = 0; i < result.violations.size() && i < shown_max; ++i) {
        std::printf("  [%s] %s\n", result.violations[i].invariant.c_str(), result.violations[i].what.c_str());
    }
}

// Adds up what the runs met.
void add_result(RunResult& sum, const RunResult& result) {
    sum.messages += result.messages;
    sum.joins += result.joins;
    sum.commands += result.commands;
    sum.requests += result.requests;
    sum.dropped += result.dropped;
    sum.duplicated += result.duplicated;
    sum.held += result.held;
    std::uint64_t sums[sizeof(FeedStats) / sizeof(std::uint64_t)];
    std::uint64_t more[sizeof(FeedStats) / sizeof(std::uint64_t)];
    std::memcpy(sums, &sum.stats, sizeof sums);
    std::memcpy(more, &result.stats, sizeof more);
    for (std::size_t i = 0; i < std::size(sums); ++i) {
        sums[i] += more[i];
    }
    std::memcpy(&sum.stats, sums, sizeof sums);
}

// Whether every kind of event happened; rejected logins need a connection, which no run has.
bool met_everything(const RunResult& sum) {
    const std::string events = stats_line(sum.stats);
    const bool met = events.substr(0, events.rfind(' ')).find("=0 ") == std::string::npos &&
                     sum.stats.snapshots > 0 && sum.joins > 0 && sum.requests > 0 && sum.dropped > 0 &&
                     sum.duplicated > 0 && sum.held > 0;
    std::printf("%s\npackets dropped %llu, duplicated %llu, held %llu\n", events.c_str(),
                static_cast<unsigned long long>(sum.dropped), static_cast<unsigned long long>(sum.duplicated),
                static_cast<unsigned long long>(sum.held));
    return met;
}

bool play_runs(const Arguments& arguments) {
    std::uint64_t failed = 0;
    RunResult sum;
    for (std::uint64_t run = 0; run < arguments.runs; ++run) {
        const std::uint64_t seed = arguments.seed + run;
        const RunResult result = play_seed(seed, "");
        add_result(sum, result);
        if (arguments.verbose) {
            std::printf("seed %llu: %llu messages, %llu joins, %llu commands, %llu requests\n%s",
                        static_cast<unsigned long long>(seed),
                        static_cast<unsigned long long>(result.messages),
                        static_cast<unsigned long long>(result.joins),
                        static_cast<unsigned long long>(result.commands),
                        static_cast<unsigned long long>(result.requests), describe(draw_plan(seed)).c_str());
        }
        if (!result.violations.empty()) {
            print_violations(seed, result);
            ++failed;
        }
    }
    std::printf(
        "%llu runs, %llu messages, %llu joins, %llu commands, %llu requests, %.1f s of processor time\n"
        "%llu failed\n",
        static_cast<unsigned long long>(arguments.runs), static_cast<unsigned long long>(sum.messages),
        static_cast<unsigned long long>(sum.joins), static_cast<unsigned long long>(sum.commands),
        static_cast<unsigned long long>(sum.requests), static_cast<double>(std::clock()) / CLOCKS_PER_SEC,
        static_cast<unsigned long long>(failed));
    if (!met_everything(sum) && arguments.runs >= runs_that_meet_all) {
        std::printf("some kind of event never happened\n");
        return false;
    }
    return failed == 0;
}

// Plants the canary in a few runs; each of them has to report the invariant that guards it.
bool find_canary(const CanaryRow& row, const Arguments& arguments) {
    std::uint64_t planted = 0;
    std::uint64_t found = 0;
    for (std::uint64_t i = 0; i < canary_seeds_max && planted < canary_plantings; ++i) {
        const std::uint64_t seed = arguments.seed + i;
        Violations seen;
        RunResult result = play_seed(seed, row.name);
        seen.found = result.violations;
        planted += result.planted ? 1 : 0;
        found += result.planted && seen.has(row.invariant) ? 1 : 0;
        if (result.planted && (arguments.verbose || !seen.has(row.invariant))) {
            std::printf("canary %s, %s:\n", row.name, seen.has(row.invariant) ? "found" : "NOT FOUND");
            print_violations(seed, result);
        }
    }
    const bool good = planted == canary_plantings && found == planted;
    std::printf("%-20s %-15s planted %llu, found %llu%s\n", row.name, row.invariant,
                static_cast<unsigned long long>(planted), static_cast<unsigned long long>(found),
                good ? "" : "  FAILED");
    return good;
}

bool find_canaries(const Arguments& arguments) {
    bool good = true;
    std::string cases;
    for (const CanaryRow& row : canary_rows) {
        if (!arguments.all_canaries && arguments.canary != row.name) {
            continue;
        }
        const bool found = find_canary(row, arguments);
        good = good && found;
        cases += std::string("<testcase classname=\"Canary\" name=\"") + row.name +
                 (found ? "\" status=\"run\"/>\n"
                        : "\" status=\"run\"><failure message=\"not found\"/></testcase>\n");
    }
    if (cases.empty()) {
        std::printf("no canary '%s'\n", arguments.canary.c_str());
    }
    if (!arguments.junit.empty()) {
        std::error_code ignored;
        std::filesystem::create_directories(std::filesystem::path(arguments.junit).parent_path(), ignored);
        std::ofstream(arguments.junit) << "<testsuite name=\"canaries\">\n" << cases << "</testsuite>\n";
    }
    return good && !cases.empty();
}

// False when there is something that is no option.
bool read_arguments(int count, char** values, Arguments& arguments) {
    for (int i = 1; i < count; ++i) {
        const std::string option = values[i];
        const char* value = i + 1 < count ? values[i + 1] : "";
        if (option == "--canaries") {
            arguments.all_canaries = true;
        } else if (option == "--verbose") {
            arguments.verbose = true;
        } else if (i + 1 == count) {
            return false;
        } else if (option == "--runs") {
            arguments.runs = std::strtoull(value, nullptr, 10);
            ++i;
        } else if (option == "--seed") {
            arguments.seed = std::strtoull(value, nullptr, 10);
            ++i;
        } else if (option == "--canary") {
            arguments.canary = value;
            ++i;
        } else if (option == "--junit") {
            arguments.junit = value;
            ++i;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace
}  // namespace tessel::simulator

int main(int count, char** values) {
    using namespace tessel::simulator;
    Arguments arguments;
    if (!read_arguments(count, values, arguments)) {
        std::printf(
            "tessel_simulator [--runs N] [--seed S] [--canary NAME | --canaries] [--verbose] "
            "[--junit FILE]\n");
        return 2;
    }
    tape = start_tape();
    for (const int signal_number : {SIGABRT, SIGSEGV, SIGFPE, SIGILL, SIGBUS}) {
        std::signal(signal_number, tell_crash);
    }
    const bool steered = arguments.all_canaries || !arguments.canary.empty();
    return (steered ? find_canaries(arguments) : play_runs(arguments)) ? 0 : 1;
}
