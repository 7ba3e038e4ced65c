#pragma once

#include "certify/case_run.h"

// Load cases: one run a rate.
namespace tessel::certify {

// Runs each rate, finds the highest one without loss by bisection where the case asks for it, and says in
// `result` how it went: the curve, the highest rate, the verdict.
void run_load(const CaseJob& job, const volatile int& stop, CaseResult& result);

// A case whose feed publishes about that many messages a second.
Case case_of_rate(const Case& each, std::uint64_t rate);

}  // namespace tessel::certify
