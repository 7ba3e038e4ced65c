#pragma once

#include "certify/certificate.h"
#include "certify/judging.h"
#include "certify/traffic.h"

// What exactly differs, and in which messages.
namespace tessel::certify {

inline constexpr std::size_t findings_max = 1'000;
inline constexpr std::size_t examples_max = 5;
inline constexpr std::size_t fetched_messages_max = 1'000;

// Adds findings and examples of what the judge found to `result`. The bytes of the messages come from the
// feed's retransmission service, so the feed still has to run.
void find_differences(const JudgeInput& input, const Judgment& judgment, const Endpoints& feed,
                      CaseResult& result);

}  // namespace tessel::certify
