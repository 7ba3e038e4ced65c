#pragma once

#include "certify/case.h"
#include "certify/certificate.h"
#include "certify/options.h"

#include <span>
#include <vector>

// All cases with all handlers, side by side.
namespace tessel::certify {

// Runs the cases with each seed and adds their results to the certificate, in the order of the cases,
// handlers within a case. Progress goes to standard error. 0, or the number of a signal that asked for an
// end; then every process is gone, nothing is left, and the certificate is not whole.
int run_cases(const Options& options, const std::vector<Case>& cases, std::span<const std::uint64_t> seeds,
              const std::string& feed_program, Certificate& certificate);

// A shell line that runs the case alone, with the programs on the search path.
std::string command_alone(const Options& options, const Case& each, const Handler& handler,
                          std::uint64_t seed);

}  // namespace tessel::certify
