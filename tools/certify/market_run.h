#pragma once

#include "certify/busy_client.h"
#include "certify/case_run.h"
#include "certify/feed_run.h"
#include "certify/handler_run.h"
#include "certify/tap.h"

#include <functional>
#include <string>
#include <vector>

// The processes of a case while they run: feeds, handlers, traffic, the player of the timeline.
namespace tessel::certify {

struct MarketRun {
    const CaseJob* job = nullptr;
    const Case* each = nullptr;  // the job's, or one made of it (a rate of a load case)
    const volatile int* stop = nullptr;
    std::string folder;

    Leases leases;
    Reaped reaped;
    std::vector<FeedRun> feeds;
    std::vector<HandlerRun> handlers;  // one a feed
    std::vector<Tap> taps;
    std::vector<Endpoints> handler_ends;  // what each handler is told
    std::vector<pid_t> players;
    pid_t traffic = 0;
    BusyClient busy;
    bool ending = false;  // handlers may end now

    // The first thing that went wrong; empty while nothing has.
    Verdict verdict = Verdict::pass;
    std::string problem;

    double measured_rate = 0;  // messages a second while the market ran
};

// Starts everything, lets the market run for its time, freezes it, waits for heartbeats and ends the
// handlers. The feeds run on afterwards, so that they can be asked for messages. False when something went
// wrong, which is in `problem`.
bool play_market(MarketRun& run);

// Ends what is left: feeds, traffic, whatever a handler has started. Logs and captures are closed.
void end_market(MarketRun& run);

// Whether something went wrong; the first reason counts.
bool fail_run(MarketRun& run, Verdict verdict, const std::string& reason);

}  // namespace tessel::certify
