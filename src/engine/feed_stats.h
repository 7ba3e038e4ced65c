#pragma once

#include <cstdint>

namespace tessel {

// One counter for each kind of market event, all 0 at start, only ever incremented. The order here is the
// stored order; the printed order (app/reports) puts nbbo_changes and sip_generated third and fourth.
struct FeedStats {
    std::uint64_t quotes = 0;
    std::uint64_t adf_quotes = 0;
    std::uint64_t trades = 0;
    std::uint64_t exchange_prints = 0;
    std::uint64_t trf_prints = 0;
    std::uint64_t cross_prints = 0;
    std::uint64_t odd_lot_prints = 0;
    std::uint64_t sweeps = 0;
    std::uint64_t cancels = 0;
    std::uint64_t errors = 0;
    std::uint64_t corrections = 0;
    std::uint64_t asofs = 0;
    std::uint64_t bands = 0;
    std::uint64_t halts = 0;
    std::uint64_t pauses = 0;
    std::uint64_t quote_resumes = 0;
    std::uint64_t trade_resumes = 0;
    std::uint64_t mwcb = 0;
    std::uint64_t collars = 0;
    std::uint64_t wipeouts = 0;
    std::uint64_t snapshots = 0;
    std::uint64_t snapshot_rejects = 0;
    std::uint64_t nbbo_changes = 0;
    std::uint64_t sip_generated = 0;
};

}  // namespace tessel
