#pragma once

#include "certify/case.h"
#include "certify/ports.h"
#include "certify/processes.h"
#include "certify/traffic.h"
#include "ctl/control_client.h"
#include "ctl/stats.h"

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

// One feed of a case: its process, its addresses and its files.
namespace tessel::certify {

// Messages [first, first + count) that the feed dropped, by its own account.
struct DroppedRange {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
};

struct FeedRun {
    Endpoints endpoints;
    std::string control;             // HOST:PORT
    std::vector<std::string> words;  // program and options
    std::string scenario;
    std::string truth_path;
    std::string log_path;
    pid_t process = 0;
    ctl::ControlClient client;
    std::vector<std::uint64_t> log_offsets;  // where in its log each of its runs begins
};

// Chooses the feed's addresses. `shared` is the port of a case whose feeds have one port, 0 for any.
bool lease_feed(FeedRun& feed, Leases& leases, std::uint16_t shared, std::string& error);

// The options of a case's feed: those of the case, its addresses, its seed, its truth log.
std::vector<std::string> feed_words(const Case& each, const FeedRun& feed, const std::string& program,
                                    std::uint64_t seed);

// Starts the feed, which goes on in its files when it was running before. False with a reason in `error` when
// it cannot be started; is_feed_ready shows when it runs.
bool start_feed(FeedRun& feed, std::string& error);
bool is_feed_ready(const FeedRun& feed);

// The last line that the feed has written.
std::string last_words(const FeedRun& feed);

// What a run's part of the log says of dropped packets; run 0 is the first.
std::vector<DroppedRange> dropped_ranges(const FeedRun& feed, std::size_t run);
std::vector<DroppedRange> parse_dropped(std::string_view log);

// Symbols made up for a case, "S0001:20.00,..."; prices are 20 to 419 dollars.
std::string generated_symbols(unsigned count);

// The seed of a case's feed: that of the run, moved by a number made of the case's name. Runs with other
// seeds give every case another market, and no two cases of a run have the same.
std::uint64_t feed_seed(std::uint64_t run_seed, const std::string& case_name);

// Asks the feed for its counters. False when it does not answer.
bool ask_stats(FeedRun& feed, ctl::FeedCounters& counters);

// Ends it: SIGINT, and SIGKILL after five seconds.
void stop_feed(FeedRun& feed, Reaped& reaped);

}  // namespace tessel::certify
