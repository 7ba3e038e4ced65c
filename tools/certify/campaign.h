#pragma once

#include "certify/certificate.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Many seeds, divided among jobs that know nothing of each other.
namespace tessel::certify {

// More would take years.
inline constexpr std::uint64_t campaign_seeds_max = 100'000'000;
inline constexpr std::uint64_t campaign_jobs_max = 100'000;

// Reads "seeds=A..B", A <= B. False with a reason in `error`, which names the text and what would be right.
bool parse_campaign(std::string_view text, Campaign& campaign, std::string& error);

// Reads "J/N", 1 <= J <= N, for a campaign that was read before: no job is without a seed.
bool parse_job(std::string_view text, Campaign& campaign, std::string& error);

// Whether the certificate or the command line is of a campaign at all.
bool is_campaign(const Campaign& campaign);

// The job that runs a seed of the campaign: job J runs those with (seed - first) mod jobs = J - 1.
std::uint64_t job_of(const Campaign& campaign, std::uint64_t seed);

// Whether the numbers fit together: a range, jobs that all have a seed, and of these one at least that is
// done.
bool is_valid(const Campaign& campaign);

// The seeds of all jobs in `done`, rising.
std::vector<std::uint64_t> seeds_of(const Campaign& campaign);

// Results in the order in which reports show them: by seed, and within it as the cases and handlers first
// occur.
void order_results(std::vector<CaseResult>& results);

}  // namespace tessel::certify
