#include "mold/gap_requests.h"

#include <algorithm>

namespace tessel::receiver {

namespace {

void request_gap(Sequencer& sequencer, Gap& gap, std::int64_t now_ms) {
    gap.requested_ms = now_ms;
    ++gap.requests_sent;
    request_range(sequencer, gap.first, gap.end - gap.first);
}

// When this gap needs something done, and nothing before that.
std::int64_t due_ms(const Sequencer& sequencer, const Gap& gap) {
    if (!sequencer.settings.can_request) {
        return gap.found_ms + sequencer.settings.abandon_ms;
    }
    return gap.requests_sent == 0 ? gap.found_ms + sequencer.settings.settle_ms
                                  : gap.requested_ms + sequencer.settings.timeout_ms;
}

// Numbers requested that have neither come nor run out of time.
std::uint64_t outstanding_messages(const Sequencer& sequencer) {
    std::uint64_t sum = 0;
    for (const Gap& gap : sequencer.gaps) {
        sum += gap.requests_sent != 0 && !gap.abandoned ? gap.end - gap.first : 0;
    }
    return sum;
}

// Whether the gap is one on every line.
bool is_confirmed(const Sequencer& sequencer, const Gap& gap) {
    return gap.first < sequencer.confirmed_below;
}

bool buffer_is_full(const Sequencer& sequencer) {
    return sequencer.waiting_bytes >= sequencer.settings.buffer_bytes_max;
}

// Cuts the gap at `index` in two when it goes past `end`, which is above its first number.
void split_gap(Sequencer& sequencer, std::size_t index, std::uint64_t end) {
    if (sequencer.gaps[index].end > end) {
        Gap rest = sequencer.gaps[index];
        rest.first = end;
        sequencer.gaps[index].end = end;
        sequencer.gaps.insert(sequencer.gaps.begin() + static_cast<std::ptrdiff_t>(index) + 1, rest);
    }
}

// Cuts the gap at `index` so that its first part is one request; returns false when no more may be requested
// now.
bool fit_request(Sequencer& sequencer, std::size_t index, std::uint64_t room) {
    const std::uint64_t most = std::min(sequencer.settings.request_messages_max, room);
    if (most == 0) {
        return false;
    }
    const Gap& gap = sequencer.gaps[index];
    if (gap.end - gap.first > most) {
        split_gap(sequencer, index, gap.first + most);
    }
    return true;
}

// Numbers that every line has passed are missing now, and so is everything when no packet can be kept any
// more. The wait before the first request begins here.
void confirm_gaps(Sequencer& sequencer, std::int64_t now_ms) {
    const std::uint64_t end =
        buffer_is_full(sequencer)
            ? sequencer.highest
            : passed_by_all(sequencer.arbiter, sequencer.highest, now_ms, sequencer.settings.patience_ms);
    if (end <= sequencer.confirmed_below) {
        return;
    }
    for (std::size_t at = 0; at < sequencer.gaps.size() && sequencer.gaps[at].first < end; ++at) {
        if (sequencer.gaps[at].first < sequencer.confirmed_below) {
            continue;
        }
        split_gap(sequencer, at, end);
        Gap& gap = sequencer.gaps[at];
        gap.found_ms = now_ms;
        ++sequencer.counters.gaps;
        sequencer.counters.missed += gap.end - gap.first;
    }
    sequencer.confirmed_below = end;
}

void send_probes(Sequencer& sequencer) {
    for (const Probe& probe : sequencer.search.probes) {
        request_range(sequencer, probe.number, 1);
    }
}

// Marks what is missing below `end` as abandoned; returns how many numbers that are.
std::uint64_t abandon_below(Sequencer& sequencer, std::uint64_t end) {
    std::uint64_t count = 0;
    for (std::size_t at = 0; at < sequencer.gaps.size() && sequencer.gaps[at].first < end; ++at) {
        split_gap(sequencer, at, end);
        sequencer.gaps[at].abandoned = true;
        count += sequencer.gaps[at].end - sequencer.gaps[at].first;
    }
    return count;
}

void end_search(Sequencer& sequencer, SearchStep result, std::int64_t now_ms) {
    const HistorySearch& search = sequencer.search;
    if (result == SearchStep::no_replies) {
        abandon_below(sequencer, search.end);
    } else if (search.candidate != 0) {
        const std::uint64_t first = sequencer.next;
        const std::uint64_t count = abandon_below(sequencer, search.candidate + 1);
        sequencer.counters.expired += count;
        if (sequencer.sinks.expired && count != 0) {
            sequencer.sinks.expired(first, count);
        }
    }
    // The rest of the range is requested now.
    for (Gap& gap : sequencer.gaps) {
        if (gap.first < search.end) {
            gap.found_ms = now_ms - sequencer.settings.settle_ms;
            gap.requested_ms = now_ms - sequencer.settings.timeout_ms;
        }
    }
}

void continue_search(Sequencer& sequencer, std::int64_t now_ms) {
    const SequencerSettings& settings = sequencer.settings;
    const SearchStep step =
        step_search(sequencer.search, now_ms, settings.settle_ms, settings.timeout_ms, settings.retries);
    if (step == SearchStep::probe) {
        send_probes(sequencer);
    } else if (step != SearchStep::wait) {
        end_search(sequencer, step, now_ms);
    }
}

// Begins a search when the first request for a long gap at the front went without any reply: true then.
bool search_instead(Sequencer& sequencer, std::int64_t now_ms) {
    const std::deque<Gap>& gaps = sequencer.gaps;
    std::uint64_t end = gaps.front().end;
    for (std::size_t at = 1; at < gaps.size() && gaps[at].first == end && is_confirmed(sequencer, gaps[at]);
         ++at) {
        end = gaps[at].end;
    }
    const std::uint64_t first = gaps.front().first;
    if (gaps.front().requests_sent != 1 || gaps.front().abandoned ||
        end - first <= sequencer.settings.request_messages_max) {
        return false;
    }
    begin_search(sequencer.search, first, end, now_ms);
    send_probes(sequencer);
    return true;
}

// Requests for this gap wait for the end of the search that it is part of.
bool is_searched(const Sequencer& sequencer, const Gap& gap) {
    return sequencer.search.active && gap.first < sequencer.search.end;
}

}  // namespace

void on_timer(Sequencer& sequencer, std::int64_t now_ms) {
    if (sequencer.gaps.empty()) {
        sequencer.search.active = false;
        return;
    }
    if (sequencer.check_number != 0 && now_ms < sequencer.check_end_ms) {
        return;  // what is missing may be of another run
    }
    sequencer.check_number = 0;
    confirm_gaps(sequencer, now_ms);
    if (sequencer.search.active) {
        continue_search(sequencer, now_ms);
    }
    std::uint64_t outstanding = sequencer.settings.can_request ? outstanding_messages(sequencer) : 0;
    for (std::size_t i = 0; i < sequencer.gaps.size(); ++i) {
        Gap& gap = sequencer.gaps[i];
        if (!is_confirmed(sequencer, gap)) {
            break;
        }
        if (gap.abandoned || is_searched(sequencer, gap) || due_ms(sequencer, gap) > now_ms) {
            continue;
        }
        if (i == 0 && sequencer.settings.can_request && search_instead(sequencer, now_ms)) {
            continue;
        }
        if (!sequencer.settings.can_request || gap.requests_sent > sequencer.settings.retries) {
            gap.abandoned = true;
            continue;
        }
        // With a full buffer only the reply that goes straight through is of use.
        if (buffer_is_full(sequencer) && i != 0) {
            break;
        }
        const std::uint64_t again = gap.requests_sent != 0 ? gap.end - gap.first : 0;
        const std::uint64_t others = outstanding > again ? outstanding - again : 0;
        const std::uint64_t room = sequencer.settings.outstanding_messages_max > others
                                       ? sequencer.settings.outstanding_messages_max - others
                                       : 0;
        if (!fit_request(sequencer, i, room)) {
            break;
        }
        Gap& ready = sequencer.gaps[i];
        outstanding = others + (ready.end - ready.first);
        request_gap(sequencer, ready, now_ms);
    }
    drain(sequencer);
}

std::int64_t next_timer_ms(const Sequencer& sequencer, std::int64_t now_ms) {
    if (sequencer.gaps.empty()) {
        return -1;
    }
    const std::uint64_t outstanding = sequencer.settings.can_request ? outstanding_messages(sequencer) : 0;
    std::int64_t least = sequencer.settings.timeout_ms;
    if (sequencer.check_number != 0) {
        return std::clamp<std::int64_t>(sequencer.check_end_ms - now_ms, 0, least);
    }
    if (sequencer.search.active) {
        least = search_due_ms(sequencer.search, sequencer.settings.settle_ms, least) - now_ms;
    }
    for (const Gap& gap : sequencer.gaps) {
        // What has not been requested because too much is outstanding waits for replies or their time-out.
        if (!is_confirmed(sequencer, gap)) {
            least = std::min(least, next_stall_ms(sequencer.arbiter, now_ms, sequencer.settings.patience_ms));
            break;
        }
        const bool held_up = sequencer.settings.can_request && gap.requests_sent == 0 &&
                             outstanding >= sequencer.settings.outstanding_messages_max;
        if (!gap.abandoned && !held_up && !is_searched(sequencer, gap)) {
            least = std::min(least, due_ms(sequencer, gap) - now_ms);
        }
    }
    return std::max<std::int64_t>(least, 0);
}

}  // namespace tessel::receiver
