#include "mold/sequencer.h"

#include "mold/gap_requests.h"
#include "mold/packet.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace tessel::receiver {

namespace {

constexpr std::int64_t nanoseconds_a_millisecond = 1'000'000;

// What a packet's header says, once its blocks are known to fit.
struct PacketRange {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
};

// The header, then blocks of length 2 and bytes.
bool read_packet(PacketRange& range, const unsigned char* bytes, std::size_t length) {
    range.first = mold_sequence(bytes);
    std::size_t count = mold_count(bytes);
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
        const std::size_t block = read_big_endian(bytes + offset, block_prefix_bytes);
        if (length - offset - 2 < block) {
            return false;
        }
        offset += 2 + block;
    }
    return true;
}

// Hands out the packet's messages from `next` on. The packet holds that number or only earlier ones.
void deliver(Sequencer& sequencer, const unsigned char* bytes) {
    std::uint64_t sequence = mold_sequence(bytes);
    const std::uint64_t end = sequence + mold_count(bytes);
    const unsigned char* block = bytes + mold_header_bytes;
    for (; sequence < end; ++sequence) {
        const std::size_t length = read_big_endian(block, block_prefix_bytes);
        if (sequence == sequencer.next) {
            ++sequencer.next;
            ++sequencer.counters.delivered;
            remember_message(sequencer.detector, sequence, block + 2, length);
            sequencer.sinks.message(sequence, block + 2, length);
        }
        block += 2 + length;
    }
}

// Passes over the abandoned gaps at the front: those that follow each other are one loss.
void drop_front_gaps(Sequencer& sequencer) {
    const std::uint64_t first = sequencer.next;
    while (!sequencer.gaps.empty() && sequencer.gaps.front().first == sequencer.next &&
           sequencer.gaps.front().abandoned) {
        sequencer.next = sequencer.gaps.front().end;
        sequencer.gaps.pop_front();
    }
    const std::uint64_t count = sequencer.next - first;
    forget_messages(sequencer.detector, first, count);
    sequencer.counters.lost += count;
    sequencer.sinks.lost(first, count);
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
    if (first < sequencer.confirmed_below) {
        ++sequencer.counters.gaps;
        sequencer.counters.missed += end - first;
    }
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

// Keeps a packet that comes after a gap.
void keep_waiting(Sequencer& sequencer, const PacketRange& range, const unsigned char* bytes,
                  std::size_t length, const PacketArrival& arrival) {
    // Of two packets with one first number the one with more messages holds the other's too.
    WaitingPacket& kept = sequencer.waiting[range.first];
    if (kept.bytes.empty() || mold_count(kept.bytes.data()) < range.end - range.first) {
        sequencer.waiting_bytes -= kept.bytes.size();
        sequencer.waiting_bytes += length;
        kept.bytes.assign(bytes, bytes + length);
        kept.arrival = arrival;
    }
}

// The old run ends with what is there of it. The new one is fetched from its first message when it can be.
void begin_new_run(Sequencer& sequencer, std::uint64_t first, std::int64_t now_ms) {
    abandon_gaps(sequencer);
    ++sequencer.counters.restarts;
    end_run(sequencer.arbiter, sequencer.highest, now_ms + sequencer.settings.silence_ms);
    if (sequencer.sinks.restarted) {
        sequencer.sinks.restarted(first);
    }
    const bool from_start = sequencer.settings.can_request || sequencer.settings.first_sequence == 1;
    start_at(sequencer, from_start ? 1 : first);
}

// The first packet after a silence: requests the last message again, to see whether it is still the same.
void check_after_silence(Sequencer& sequencer, std::int64_t now_ms) {
    const bool silent = sequencer.last_multicast_ms >= 0 &&
                        now_ms - sequencer.last_multicast_ms >= sequencer.settings.silence_ms;
    sequencer.last_multicast_ms = now_ms;
    if (silent && sequencer.settings.can_request && sequencer.next > sequencer.detector.origin) {
        sequencer.check_number = sequencer.next - 1;
        sequencer.check_end_ms = now_ms + sequencer.settings.timeout_ms;
        request_range(sequencer, sequencer.check_number, 1);
    }
}

// The reply to that request. What waits after a gap came after the silence, so it is of the new run already
// and is requested again with it.
void check_reply(Sequencer& sequencer, const PacketRange& range, const unsigned char* bytes,
                 std::int64_t now_ms) {
    const std::uint64_t number = sequencer.check_number;
    if (number == 0 || number < range.first || number >= range.end) {
        return;
    }
    sequencer.check_number = 0;
    if (compare_packet(sequencer.detector, bytes, range.first, range.end, sequencer.next) ==
        PacketMemory::different) {
        sequencer.gaps.clear();
        sequencer.waiting.clear();
        sequencer.waiting_bytes = 0;
        begin_new_run(sequencer, 1, now_ms);
        for (Line& line : sequencer.arbiter.lines) {
            line.old_passed = 0;  // no line brought anything in the silence
            line.signs.reached = true;
        }
    }
}

void begin_new_run_on(Sequencer& sequencer, Line& line, std::uint64_t first, std::int64_t now_ms) {
    begin_new_run(sequencer, first, now_ms);
    line.old_passed = 0;
    line.signs.reached = true;
}

// Looks for signs of a new run in a multicast packet, and begins it. What goes on from where its line was is
// none, however far another line is ahead.
void detect_restart(Sequencer& sequencer, Line& line, const PacketRange& range, const unsigned char* bytes,
                    std::int64_t now_ms) {
    check_after_silence(sequencer, now_ms);
    const bool several = sequencer.arbiter.lines.size() > 1;
    if (range.first == range.end) {
        if (!line.signs.reached || range.first >= (several ? line.passed : sequencer.highest)) {
            line.signs.heartbeat_fell = false;
        } else {
            ++sequencer.counters.sequence_resets;
            if (heartbeat_proves_restart(line.signs)) {
                begin_new_run_on(sequencer, line, range.first, now_ms);
            }
        }
    } else if (range.first < sequencer.next && (!several || range.first < line.passed)) {
        const std::uint64_t first =
            find_restart(sequencer.detector, line.signs, bytes, range.first, range.end, sequencer.next);
        if (first != 0) {
            begin_new_run_on(sequencer, line, first, now_ms);
        }
    } else {
        line.signs.suspect_end = 0;
        line.signs.heartbeat_fell = false;
    }
    line.signs.reached = line.signs.reached || range.end >= (several ? line.passed : sequencer.next);
}

// After a restart: whether the packet of a slower line is still of the run before. Those go on where the line
// was, or were overtaken there: they are above what is known of the new run, or hold other bytes.
bool is_of_old_run(const Sequencer& sequencer, Line& line, const PacketRange& range,
                   const unsigned char* bytes, std::int64_t now_ms) {
    if (line.old_passed == 0 || now_ms >= line.old_end_ms) {
        line.old_passed = 0;
        return false;
    }
    if (range.first >= line.old_passed) {
        line.old_passed = range.end;
        return true;
    }
    if (range.first > sequencer.highest || compare_packet(sequencer.detector, bytes, range.first, range.end,
                                                          sequencer.next) == PacketMemory::different) {
        return true;
    }
    line.old_passed = 0;
    return false;
}

}  // namespace

void drain(Sequencer& sequencer) {
    for (;;) {
        if (!sequencer.gaps.empty() && sequencer.gaps.front().first == sequencer.next &&
            sequencer.gaps.front().abandoned) {
            drop_front_gaps(sequencer);
        } else if (!sequencer.waiting.empty() && sequencer.waiting.begin()->first <= sequencer.next) {
            const auto packet = sequencer.waiting.begin();
            sequencer.delivering = packet->second.arrival;
            deliver(sequencer, packet->second.bytes.data());
            sequencer.waiting_bytes -= packet->second.bytes.size();
            sequencer.waiting.erase(packet);
        } else {
            return;
        }
    }
}

void request_range(Sequencer& sequencer, std::uint64_t first, std::uint64_t count) {
    unsigned char request[mold_header_bytes];
    put_mold_header(request, sequencer.settings.session.data(), first, count);
    ++sequencer.counters.requests;
    sequencer.sinks.request(request, sizeof request);
}

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
    sequencer.arbiter = make_arbiter(sequencer.settings.lines);
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
    sequencer.search.active = false;
    sequencer.check_number = 0;
    reset_detector(sequencer.detector, sequence);
    begin_run(sequencer.arbiter, sequence);
    sequencer.confirmed_below = sequencer.arbiter.lines.size() > 1 ? sequence : UINT64_MAX;
}

namespace {

// Delivers or keeps what the packet brings. `was_new_on_line`: it has a message that no packet of its line
// had before. Inline: replies, too, come here, and the call would cost each packet 60 instructions.
[[gnu::always_inline]] inline void take_messages(Sequencer& sequencer, const PacketRange& range,
                                                 const unsigned char* bytes, std::size_t length,
                                                 const PacketArrival& arrival, bool was_new_on_line) {
    const std::int64_t now_ms = arrival.now_ms;
    learn_of(sequencer, range.first, now_ms);
    if (range.first == range.end || range.end <= sequencer.next) {
        sequencer.counters.duplicate_packets += range.first == range.end || was_new_on_line ? 0 : 1;
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
        sequencer.counters.duplicate_packets += was_new_on_line ? 0 : 1;
        return;
    }
    sequencer.highest = std::max(sequencer.highest, range.end);
    if (arrival.source == PacketSource::retransmission) {
        sequencer.counters.recovered += filled;
    } else if (filled != 0 && (sequencer.arbiter.lines.size() == 1 ||
                               range.first < sequencer.arbiter.lines[arrival.line].passed)) {
        ++sequencer.counters.reordered_packets;
    }
    if (in_order) {
        sequencer.delivering = arrival;
        deliver(sequencer, bytes);
    } else {
        keep_waiting(sequencer, range, bytes, length, arrival);
    }
    drain(sequencer);
}

}  // namespace

void on_packet(Sequencer& sequencer, const unsigned char* bytes, std::size_t length,
               const PacketArrival& arrival) {
    PacketRange range;
    if (!accept_packet(sequencer, range, bytes, length)) {
        return;
    }
    if (!sequencer.started) {
        start_at(sequencer, range.first);
    }
    sequencer.counters.heartbeats += range.first == range.end ? 1 : 0;
    if (arrival.source == PacketSource::retransmission) {
        note_reply(sequencer.search, range.first, range.end, arrival.now_ms);
        check_reply(sequencer, range, bytes, arrival.now_ms);
        take_messages(sequencer, range, bytes, length, arrival, false);
        return;
    }
    LineArbiter& arbiter = sequencer.arbiter;
    assert(arrival.line < arbiter.lines.size());
    Line& line = arbiter.lines[arrival.line];
    if (is_of_old_run(sequencer, line, range, bytes, arrival.now_ms)) {
        ++sequencer.counters.old_run;
        return;
    }
    detect_restart(sequencer, line, range, bytes, arrival.now_ms);
    const bool several = arbiter.lines.size() > 1;
    const std::int64_t stamp_ns =
        arrival.stamp_ns != 0 ? arrival.stamp_ns : arrival.now_ms * nanoseconds_a_millisecond;
    const bool was_new_on_line =
        several && note_copies(arbiter, arrival.line, range.first, range.end, stamp_ns);
    take_messages(sequencer, range, bytes, length, arrival, was_new_on_line);
    if (several) {
        note_progress(arbiter, line, range.end, sequencer.highest, arrival.now_ms);
    }
}

void abandon_gaps(Sequencer& sequencer) {
    for (Gap& gap : sequencer.gaps) {
        gap.abandoned = true;
    }
    drain(sequencer);
}

std::uint64_t missing_on_line(const Sequencer& sequencer, std::size_t line) {
    const LineArbiter& arbiter = sequencer.arbiter;
    const LineCounters& counters = arbiter.lines[line].counters;
    const std::uint64_t known = arbiter.numbers_before + (sequencer.highest - arbiter.origin);
    const std::uint64_t brought = counters.first + counters.second;
    return known > brought ? known - brought : 0;
}

bool nothing_missing(const Sequencer& sequencer) {
    return sequencer.gaps.empty();
}

}  // namespace tessel::receiver
