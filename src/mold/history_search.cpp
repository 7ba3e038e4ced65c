#include "mold/history_search.h"

#include <algorithm>

namespace tessel::receiver {

namespace {

// A round over [low, high], both included, and the newest number of the range, which is answered whenever the
// service lives: without it a floor that rose above `high` would look like a service that is gone.
void begin_round(HistorySearch& search, std::uint64_t low, std::uint64_t high, std::int64_t now_ms) {
    search.probes.clear();
    const std::uint64_t width = high - low;
    const std::uint64_t steps = std::min<std::uint64_t>(width, probes_a_round - 1);
    for (std::uint64_t at = 0; at <= steps; ++at) {
        // Divided first: a product of two large numbers would not fit.
        const std::uint64_t offset = steps == 0 ? 0 : width / steps * at + width % steps * at / steps;
        search.probes.push_back({low + offset, false});
    }
    if (high != search.end - 1) {
        search.probes.push_back({search.end - 1, false});
    }
    search.sent_ms = now_ms;
    search.last_answered_ms = -1;
    ++search.rounds;
}

SearchStep finish(HistorySearch& search, SearchStep result) {
    search.active = false;
    return result;
}

// Every probe of the round up to the lowest that was answered had its reply.
SearchStep extend_downward(HistorySearch& search, std::int64_t now_ms) {
    const std::uint64_t lowest = search.probes.front().number;
    search.candidate = 0;
    search.misses = 0;
    if (lowest == search.first) {
        return finish(search, SearchStep::found);
    }
    begin_round(search, search.first, lowest, now_ms);
    return SearchStep::probe;
}

}  // namespace

void begin_search(HistorySearch& search, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    search = HistorySearch{};
    search.active = true;
    search.first = first;
    search.end = end;
    begin_round(search, first, end - 1, now_ms);
}

void note_reply(HistorySearch& search, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    if (!search.active) {
        return;
    }
    for (Probe& probe : search.probes) {
        probe.answered = probe.answered || (probe.number >= first && probe.number < end);
    }
    if (search.probes.back().answered && search.last_answered_ms < 0) {
        search.last_answered_ms = now_ms;
    }
}

SearchStep step_search(HistorySearch& search, std::int64_t now_ms, std::int64_t settle_ms,
                       std::int64_t timeout_ms, unsigned retries) {
    if (now_ms < search_due_ms(search, settle_ms, timeout_ms)) {
        return SearchStep::wait;
    }
    const auto answered = std::find_if(search.probes.begin(), search.probes.end(),
                                       [](const Probe& probe) { return probe.answered; });
    if (answered == search.probes.end()) {
        if (++search.silent_rounds > retries) {
            return finish(search, SearchStep::no_replies);
        }
        search.sent_ms = now_ms;
        return SearchStep::probe;
    }
    search.silent_rounds = 0;
    if (answered == search.probes.begin()) {
        return extend_downward(search, now_ms);
    }
    const std::uint64_t gone = (answered - 1)->number;
    const std::uint64_t held = answered->number;
    search.misses = gone == search.candidate ? search.misses + 1 : 1;
    search.candidate = gone;
    if ((held - gone == 1 && search.misses > retries) || search.rounds >= search_rounds_max) {
        return finish(search, SearchStep::found);
    }
    begin_round(search, gone, held, now_ms);
    return SearchStep::probe;
}

std::int64_t search_due_ms(const HistorySearch& search, std::int64_t settle_ms, std::int64_t timeout_ms) {
    const std::int64_t timeout_due_ms = search.sent_ms + timeout_ms;
    return search.last_answered_ms < 0 ? timeout_due_ms
                                       : std::min(timeout_due_ms, search.last_answered_ms + settle_ms);
}

}  // namespace tessel::receiver
