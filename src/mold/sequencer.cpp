#include "mold/sequencer.h"

#include <algorithm>
#include <cstring>

namespace tessel::receiver {

namespace {

// What a packet's header says, once its blocks are known to fit.
struct PacketRange {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
};

std::uint64_t big_endian(const unsigned char* p, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = (value << 8) | p[i];
    }
    return value;
}

void put_big_endian(unsigned char* p, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0; value >>= 8) {
        p[i] = static_cast<unsigned char>(value & 0xffu);
    }
}

// Session 10, sequence number 8, message count 2, then blocks of length 2 and bytes.
bool read_packet(PacketRange& range, const unsigned char* bytes, std::size_t length) {
    range.first = big_endian(bytes + 10, 8);
    std::size_t count = big_endian(bytes + 18, 2);
    if (count == mold_end_of_session_count) {
        count = 0;  // says, like a heartbeat, which number would be next
    }
    // Number 0 does not exist, and a range past the end of the numbers cannot be held.
    if (range.first == 0 || range.first > UINT64_MAX - count) {
        return false;
    }
    range.end = range.first + count;
    std::size_t offset = mold_header_bytes;
    for (std::size_t i = 0; i < count; ++i) {
        if (length - offset < 2) {
            return false;
        }
        const std::size_t block = big_endian(bytes + offset, 2);
        if (length - offset - 2 < block) {
            return false;
        }
        offset += 2 + block;
    }
    return true;
}

// Hands out the packet's messages from `next` on. The packet holds that number or only earlier ones.
void deliver(Sequencer& sequencer, const unsigned char* bytes) {
    std::uint64_t sequence = big_endian(bytes + 10, 8);
    const std::uint64_t end = sequence + big_endian(bytes + 18, 2);
    const unsigned char* block = bytes + mold_header_bytes;
    for (; sequence < end; ++sequence) {
        const std::size_t length = big_endian(block, 2);
        if (sequence == sequencer.next) {
            ++sequencer.next;
            ++sequencer.counters.delivered;
            sequencer.sinks.message(sequence, block + 2, length);
        }
        block += 2 + length;
    }
}

// Hands out what is no longer behind a gap, and steps over gaps in front that are given up.
void drain(Sequencer& sequencer) {
    for (;;) {
        if (!sequencer.gaps.empty() && sequencer.gaps.front().first == sequencer.next &&
            sequencer.gaps.front().abandoned) {
            const Gap gap = sequencer.gaps.front();
            sequencer.gaps.pop_front();
            sequencer.next = gap.end;
            sequencer.counters.lost += gap.end - gap.first;
            sequencer.sinks.lost(gap.first, gap.end - gap.first);
        } else if (!sequencer.waiting.empty() && sequencer.waiting.begin()->first <= sequencer.next) {
            const auto packet = sequencer.waiting.begin();
            deliver(sequencer, packet->second.data());
            sequencer.waiting_bytes -= packet->second.size();
            sequencer.waiting.erase(packet);
        } else {
            return;
        }
    }
}

// Takes [first, end) out of the gaps and returns how many numbers that closed. What is left of a gap keeps
// its history; an answer that came in restarts the wait for the rest of it.
std::uint64_t close_gaps(Sequencer& sequencer, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    std::uint64_t closed = 0;
    auto gap = std::lower_bound(sequencer.gaps.begin(), sequencer.gaps.end(), first,
                                [](const Gap& each, std::uint64_t number) { return each.end <= number; });
    while (gap != sequencer.gaps.end() && gap->first < end) {
        const Gap old = *gap;
        const std::uint64_t from = std::max(old.first, first);
        const std::uint64_t to = std::min(old.end, end);
        closed += to - from;
        gap = sequencer.gaps.erase(gap);
        Gap rest = old;
        if (rest.requests_sent != 0) {
            rest.requested_ms = now_ms;
        }
        if (to < old.end) {
            rest.first = to;
            rest.end = old.end;
            gap = sequencer.gaps.insert(gap, rest);
        }
        if (old.first < from) {
            rest.first = old.first;
            rest.end = from;
            gap = sequencer.gaps.insert(gap, rest) + 1;
        }
        if (to < old.end) {
            break;
        }
    }
    return closed;
}

void add_gap(Sequencer& sequencer, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    Gap gap;
    gap.first = first;
    gap.end = end;
    gap.found_ms = now_ms;
    sequencer.gaps.push_back(gap);
    ++sequencer.counters.gaps;
    sequencer.counters.missed += end - first;
}

// Whether the packet is one of ours and whole; counts it.
bool accept_packet(Sequencer& sequencer, PacketRange& range, const unsigned char* bytes, std::size_t length) {
    if (length >= mold_header_bytes &&
        std::memcmp(bytes, sequencer.settings.session.data(), mold_session_bytes) != 0) {
        ++sequencer.counters.other_session;
        return false;
    }
    if (length < mold_header_bytes || !read_packet(range, bytes, length)) {
        ++sequencer.counters.malformed;
        return false;
    }
    ++sequencer.counters.packets;
    return true;
}

// Every number below `end` is known to exist now; those that were not known yet are missing.
void learn_of(Sequencer& sequencer, std::uint64_t end, std::int64_t now_ms) {
    if (end > sequencer.highest) {
        add_gap(sequencer, sequencer.highest, end, now_ms);
        sequencer.highest = end;
    }
}

// Keeps a packet that is behind a gap.
void keep_waiting(Sequencer& sequencer, const PacketRange& range, const unsigned char* bytes,
                  std::size_t length) {
    // Of two packets with one first number the one with more messages holds the other's too.
    std::vector<unsigned char>& kept = sequencer.waiting[range.first];
    if (kept.empty() || big_endian(kept.data() + 18, 2) < range.end - range.first) {
        sequencer.waiting_bytes -= kept.size();
        sequencer.waiting_bytes += length;
        kept.assign(bytes, bytes + length);
    }
}

void send_request(Sequencer& sequencer, Gap& gap, std::int64_t now_ms) {
    unsigned char request[mold_header_bytes];
    std::memcpy(request, sequencer.settings.session.data(), mold_session_bytes);
    put_big_endian(request + 10, gap.first, 8);
    put_big_endian(request + 18, gap.end - gap.first, 2);
    gap.requested_ms = now_ms;
    ++gap.requests_sent;
    ++sequencer.counters.requests;
    sequencer.sinks.request(request, sizeof request);
}

// When this gap needs something done, and nothing before that.
std::int64_t due_ms(const Sequencer& sequencer, const Gap& gap) {
    if (!sequencer.settings.can_request) {
        return gap.found_ms + sequencer.settings.abandon_ms;
    }
    return gap.requests_sent == 0 ? gap.found_ms + sequencer.settings.settle_ms
                                  : gap.requested_ms + sequencer.settings.timeout_ms;
}

// Numbers asked for that have neither come nor run out of time.
std::uint64_t outstanding_messages(const Sequencer& sequencer) {
    std::uint64_t sum = 0;
    for (const Gap& gap : sequencer.gaps) {
        sum += gap.requests_sent != 0 && !gap.abandoned ? gap.end - gap.first : 0;
    }
    return sum;
}

bool buffer_is_full(const Sequencer& sequencer) {
    return sequencer.waiting_bytes >= sequencer.settings.buffer_bytes_max;
}

// Cuts the gap at `index` so that its first part is one request; returns false when no more may be asked for
// now.
bool fit_request(Sequencer& sequencer, std::size_t index, std::uint64_t room) {
    const std::uint64_t most = std::min(sequencer.settings.request_messages_max, room);
    if (most == 0) {
        return false;
    }
    Gap& gap = sequencer.gaps[index];
    if (gap.end - gap.first > most) {
        Gap rest = gap;
        rest.first = gap.first + most;
        gap.end = rest.first;
        sequencer.gaps.insert(sequencer.gaps.begin() + static_cast<std::ptrdiff_t>(index) + 1, rest);
    }
    return true;
}

}  // namespace

std::string padded_session(const std::string& session) {
    std::string padded = session.substr(0, mold_session_bytes);
    padded.resize(mold_session_bytes, ' ');
    return padded;
}

Sequencer make_sequencer(SequencerSettings settings, SequencerSinks sinks) {
    Sequencer sequencer;
    sequencer.settings = std::move(settings);
    sequencer.settings.session = padded_session(sequencer.settings.session);
    // A request's count has 16 bits.
    sequencer.settings.request_messages_max =
        std::clamp<std::uint64_t>(sequencer.settings.request_messages_max, 1, 65'535);
    sequencer.settings.outstanding_messages_max =
        std::max<std::uint64_t>(sequencer.settings.outstanding_messages_max, 1);
    sequencer.sinks = std::move(sinks);
    if (sequencer.settings.first_sequence != 0) {
        start_at(sequencer, sequencer.settings.first_sequence);
    }
    return sequencer;
}

void start_at(Sequencer& sequencer, std::uint64_t sequence) {
    sequencer.started = true;
    sequencer.next = sequence;
    sequencer.highest = sequence;
    sequencer.gaps.clear();
    sequencer.waiting.clear();
    sequencer.waiting_bytes = 0;
}

void on_packet(Sequencer& sequencer, const unsigned char* bytes, std::size_t length, std::int64_t now_ms,
               PacketSource source) {
    PacketRange range;
    if (!accept_packet(sequencer, range, bytes, length)) {
        return;
    }
    if (!sequencer.started) {
        start_at(sequencer, range.first);
    }
    if (range.first == range.end) {
        ++sequencer.counters.heartbeats;
        sequencer.counters.sequence_resets +=
            range.first < sequencer.highest && source == PacketSource::multicast ? 1 : 0;
    }
    learn_of(sequencer, range.first, now_ms);
    if (range.first == range.end || range.end <= sequencer.next) {
        sequencer.counters.duplicate_packets += range.first == range.end ? 0 : 1;
        return;
    }
    const bool in_order = range.first <= sequencer.next;
    if (!in_order && sequencer.waiting_bytes + length > sequencer.settings.buffer_bytes_max) {
        // Not kept, so it is missing like a packet that never came, and is asked for when there is room.
        ++sequencer.counters.buffer_full;
        learn_of(sequencer, range.end, now_ms);
        return;
    }
    const std::uint64_t filled = close_gaps(sequencer, range.first, range.end, now_ms);
    if (filled == 0 && range.end <= sequencer.highest) {
        ++sequencer.counters.duplicate_packets;
        return;
    }
    sequencer.highest = std::max(sequencer.highest, range.end);
    if (source == PacketSource::retransmission) {
        sequencer.counters.recovered += filled;
    } else if (filled != 0) {
        ++sequencer.counters.reordered_packets;
    }
    if (in_order) {
        deliver(sequencer, bytes);
    } else {
        keep_waiting(sequencer, range, bytes, length);
    }
    drain(sequencer);
}

void on_timer(Sequencer& sequencer, std::int64_t now_ms) {
    if (sequencer.gaps.empty()) {
        return;
    }
    std::uint64_t outstanding = sequencer.settings.can_request ? outstanding_messages(sequencer) : 0;
    for (std::size_t i = 0; i < sequencer.gaps.size(); ++i) {
        Gap& gap = sequencer.gaps[i];
        if (gap.abandoned || due_ms(sequencer, gap) > now_ms) {
            continue;
        }
        if (!sequencer.settings.can_request || gap.requests_sent > sequencer.settings.retries) {
            gap.abandoned = true;
            continue;
        }
        // With a full buffer only the answer that goes straight through is of use.
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
        send_request(sequencer, ready, now_ms);
    }
    drain(sequencer);
}

std::int64_t next_timer_ms(const Sequencer& sequencer, std::int64_t now_ms) {
    if (sequencer.gaps.empty()) {
        return -1;
    }
    const std::uint64_t outstanding = sequencer.settings.can_request ? outstanding_messages(sequencer) : 0;
    std::int64_t least = sequencer.settings.timeout_ms;
    for (const Gap& gap : sequencer.gaps) {
        // What has not been asked for because too much is outstanding waits for answers or their time-out.
        const bool held_up = sequencer.settings.can_request && gap.requests_sent == 0 &&
                             outstanding >= sequencer.settings.outstanding_messages_max;
        if (!gap.abandoned && !held_up) {
            least = std::min(least, due_ms(sequencer, gap) - now_ms);
        }
    }
    return std::max<std::int64_t>(least, 0);
}

void abandon_gaps(Sequencer& sequencer) {
    for (Gap& gap : sequencer.gaps) {
        gap.abandoned = true;
    }
    drain(sequencer);
}

bool nothing_missing(const Sequencer& sequencer) {
    return sequencer.gaps.empty();
}

}  // namespace tessel::receiver
