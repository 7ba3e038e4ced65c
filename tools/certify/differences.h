#pragma once

#include "certify/certificate.h"
#include "certify/judging.h"
#include "certify/traffic.h"

// What exactly differs, and in which messages.
namespace tessel::certify {

inline constexpr std::size_t findings_max = 1'000;
inline constexpr std::size_t examples_max = 5;
// Of longer truth logs only what the judge keeps is shown: no message is looked at.
inline constexpr std::uint64_t examined_bytes_max = std::uint64_t{128} << 20;

// Adds findings and examples of what the judge found to `result`. The bytes of the messages come from the
// feed's retransmission service, so the feed still has to run.
void find_differences(const Judgment& judgment, const Endpoints& feed, CaseResult& result);

}  // namespace tessel::certify
