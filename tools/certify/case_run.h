#pragma once

#include "certify/case.h"
#include "certify/certificate.h"
#include "certify/options.h"

#include <string>

// One case with one handler, from beginning to end, in a separate process.
namespace tessel::certify {

struct CaseJob {
    const Case* each = nullptr;
    const Options* options = nullptr;
    Handler handler;
    std::uint64_t seed = 0;  // of the run
    std::string feed_program;
    std::string folder;       // for its files
    std::string kept_folder;  // where they go when it does not pass; "" for nowhere
    std::string command;      // that runs it alone
};

// Runs the case and says how it went. The caller is a child subreaper; every process that the case started is
// gone when this returns. `stop` becomes true when the run is to end early.
CaseResult run_case(const CaseJob& job, const volatile int& stop);

// One run of a market made of the case, into `result`: verdict, reason, totals, differences. Returns the
// messages a second while the market ran.
double play_and_judge(const CaseJob& job, const Case& each, const volatile int& stop, CaseResult& result);

// About how long a case takes, for the estimate.
double expected_seconds(const Case& each);

}  // namespace tessel::certify
