#include "mold/fault_injector.h"

namespace tessel {

namespace {

bool divides(std::uint32_t period, std::uint64_t number) {
    return period != 0 && number % period == 0;
}

// Uses up one of a pending count; returns whether there was one.
bool take_one(std::uint32_t& pending) {
    if (pending == 0) {
        return false;
    }
    --pending;
    return true;
}

bool in_burst(const FaultInjector& faults, std::uint64_t number) {
    return number >= faults.drop_burst_start && number - faults.drop_burst_start < faults.drop_burst_length;
}

}  // namespace

FaultDecision decide_fault(FaultInjector& faults, std::uint64_t packet_number) {
    // A pending drop is used up by any dropped packet, whichever rule dropped it.
    const bool drop_due = divides(faults.drop_every, packet_number) || in_burst(faults, packet_number);
    if (take_one(faults.pending_drops) || drop_due) {
        return FaultDecision::drop;
    }
    // Likewise a pending duplicate is gone even when the packet is held back below: holding outranks
    // duplicating.
    const bool twice_due = divides(faults.dup_every, packet_number);
    const bool twice = take_one(faults.pending_dups) || twice_due;
    const bool hold_due = divides(faults.reorder_every, packet_number);
    if (take_one(faults.pending_reorders) || hold_due) {
        return FaultDecision::hold;
    }
    return twice ? FaultDecision::send_twice : FaultDecision::send;
}

}  // namespace tessel
