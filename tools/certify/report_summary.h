#pragma once

#include "certify/certificate.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

// What the reports for people and for programs count alike.
namespace tessel::certify {

// How often each verdict was given, in the order of Verdict.
struct Counts {
    std::array<std::uint64_t, 4> by_verdict{};

    std::uint64_t of(Verdict verdict) const {
        return by_verdict[static_cast<std::size_t>(verdict)];
    }
    std::uint64_t all() const {
        return by_verdict[0] + by_verdict[1] + by_verdict[2] + by_verdict[3];
    }
};

// The results of one case by one handler: several with --repeat and in a campaign.
struct CaseSummary {
    std::vector<const CaseResult*> results;  // at least one, in the order of the certificate
    Counts counts;
    Verdict verdict = Verdict::skipped;  // the worst of them: fail, error, pass, skipped

    const CaseResult& first() const {
        return *results.front();
    }
};

// One a handler and case, cases in the order of the certificate, the handlers of a case side by side. They
// point into the certificate, which therefore cannot be a temporary.
std::vector<CaseSummary> summaries(const Certificate& certificate);
std::vector<CaseSummary> summaries(const Certificate&& certificate) = delete;

// The groups in the order in which they first occur.
std::vector<std::string> group_names(const Certificate& certificate);

// Of all results, or of those of one handler and group ("" for any).
Counts counts_of(const Certificate& certificate, std::string_view handler = "", std::string_view group = "");

// The verdict about the whole: fail, error, pass, or skipped when nothing else is there.
Verdict overall(const Counts& counts);

// "54 of 60 cases pass, 4 fail, 2 skipped"; with more results than cases, "598 of 600 runs of 60 cases pass,
// 2 fail".
std::string headline(const Certificate& certificate);

// "seeds 17 and 904", "seeds 1, 2, 3 and 9 more" of the results with that verdict; "" when there is none.
std::string seeds_with(const CaseSummary& summary, Verdict verdict);

// The names of the handlers, in order.
std::vector<std::string> handler_names(const Certificate& certificate);

// One line without control characters, cut to `bytes_max` bytes between two characters.
std::string one_line(std::string_view text, std::size_t bytes_max);

}  // namespace tessel::certify
