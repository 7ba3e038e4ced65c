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
void deliver(Sequencer& s, const unsigned char* bytes) {
    std::uint64_t sequence = big_endian(bytes + 10, 8);
    const std::uint64_t end = sequence + big_endian(bytes + 18, 2);
    const unsigned char* block = bytes + mold_header_bytes;
    for (; sequence < end; ++sequence) {
        const std::size_t length = big_endian(block, 2);
        if (sequence == s.next) {
            ++s.next;
            ++s.counters.delivered;
            s.sinks.message(sequence, block + 2, length);
        }
        block += 2 + length;
    }
}

// Hands out what is no longer behind a hole, and steps over holes in front that are given up.
void drain(Sequencer& s) {
    for (;;) {
        if (!s.holes.empty() && s.holes.front().first == s.next && s.holes.front().given_up) {
            const Hole hole = s.holes.front();
            s.holes.pop_front();
            s.next = hole.end;
            s.counters.lost += hole.end - hole.first;
            s.sinks.lost(hole.first, hole.end - hole.first);
        } else if (!s.waiting.empty() && s.waiting.begin()->first <= s.next) {
            const auto packet = s.waiting.begin();
            deliver(s, packet->second.data());
            s.waiting_bytes -= packet->second.size();
            s.waiting.erase(packet);
        } else {
            return;
        }
    }
}

// Takes [first, end) out of the holes and returns how many numbers that closed. What is left of a hole keeps
// its history; an answer that came in restarts the wait for the rest of it.
std::uint64_t close_holes(Sequencer& s, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    std::uint64_t closed = 0;
    auto hole = std::lower_bound(s.holes.begin(), s.holes.end(), first,
                                 [](const Hole& h, std::uint64_t number) { return h.end <= number; });
    while (hole != s.holes.end() && hole->first < end) {
        const Hole old = *hole;
        const std::uint64_t from = std::max(old.first, first);
        const std::uint64_t to = std::min(old.end, end);
        closed += to - from;
        hole = s.holes.erase(hole);
        Hole rest = old;
        if (rest.asked != 0) {
            rest.asked_ms = now_ms;
        }
        if (to < old.end) {
            rest.first = to;
            rest.end = old.end;
            hole = s.holes.insert(hole, rest);
        }
        if (old.first < from) {
            rest.first = old.first;
            rest.end = from;
            hole = s.holes.insert(hole, rest) + 1;
        }
        if (to < old.end) {
            break;
        }
    }
    return closed;
}

void find_gap(Sequencer& s, std::uint64_t first, std::uint64_t end, std::int64_t now_ms) {
    Hole hole;
    hole.first = first;
    hole.end = end;
    hole.found_ms = now_ms;
    s.holes.push_back(hole);
    ++s.counters.gaps;
    s.counters.missed += end - first;
}

// Whether the packet is one of ours and whole; counts it.
bool accept_packet(Sequencer& s, PacketRange& range, const unsigned char* bytes, std::size_t length) {
    if (length >= mold_header_bytes &&
        std::memcmp(bytes, s.settings.session.data(), mold_session_bytes) != 0) {
        ++s.counters.other_session;
        return false;
    }
    if (length < mold_header_bytes || !read_packet(range, bytes, length)) {
        ++s.counters.malformed;
        return false;
    }
    ++s.counters.packets;
    return true;
}

// Every number below `end` is known to exist now; those that were not known yet are missing.
void learn_of(Sequencer& s, std::uint64_t end, std::int64_t now_ms) {
    if (end > s.highest) {
        find_gap(s, s.highest, end, now_ms);
        s.highest = end;
    }
}

// Keeps a packet that is behind a hole.
void keep_waiting(Sequencer& s, const PacketRange& range, const unsigned char* bytes, std::size_t length) {
    // Of two packets with one first number the one with more messages holds the other's too.
    std::vector<unsigned char>& kept = s.waiting[range.first];
    if (kept.empty() || big_endian(kept.data() + 18, 2) < range.end - range.first) {
        s.waiting_bytes -= kept.size();
        s.waiting_bytes += length;
        kept.assign(bytes, bytes + length);
    }
}

void send_request(Sequencer& s, Hole& hole, std::int64_t now_ms) {
    unsigned char request[mold_header_bytes];
    std::memcpy(request, s.settings.session.data(), mold_session_bytes);
    put_big_endian(request + 10, hole.first, 8);
    put_big_endian(request + 18, hole.end - hole.first, 2);
    hole.asked_ms = now_ms;
    ++hole.asked;
    ++s.counters.requests;
    s.sinks.request(request, sizeof request);
}

// When this hole needs something done, and nothing before that.
std::int64_t due_ms(const Sequencer& s, const Hole& hole) {
    if (!s.settings.can_ask) {
        return hole.found_ms + s.settings.give_up_ms;
    }
    return hole.asked == 0 ? hole.found_ms + s.settings.settle_ms : hole.asked_ms + s.settings.timeout_ms;
}

// Numbers asked for that have neither come nor run out of time.
std::uint64_t asked_messages(const Sequencer& s) {
    std::uint64_t sum = 0;
    for (const Hole& hole : s.holes) {
        sum += hole.asked != 0 && !hole.given_up ? hole.end - hole.first : 0;
    }
    return sum;
}

bool buffer_is_full(const Sequencer& s) {
    return s.waiting_bytes >= s.settings.buffer_bytes_max;
}

// Cuts the hole at `index` so that its first part is one request; returns false when no more may be asked for
// now.
bool fit_request(Sequencer& s, std::size_t index, std::uint64_t room) {
    const std::uint64_t most = std::min(s.settings.request_messages_max, room);
    if (most == 0) {
        return false;
    }
    Hole& hole = s.holes[index];
    if (hole.end - hole.first > most) {
        Hole rest = hole;
        rest.first = hole.first + most;
        hole.end = rest.first;
        s.holes.insert(s.holes.begin() + static_cast<std::ptrdiff_t>(index) + 1, rest);
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
    Sequencer s;
    s.settings = std::move(settings);
    s.settings.session = padded_session(s.settings.session);
    // A request's count has 16 bits.
    s.settings.request_messages_max = std::clamp<std::uint64_t>(s.settings.request_messages_max, 1, 65'535);
    s.settings.asked_messages_max = std::max<std::uint64_t>(s.settings.asked_messages_max, 1);
    s.sinks = std::move(sinks);
    if (s.settings.first_sequence != 0) {
        start_at(s, s.settings.first_sequence);
    }
    return s;
}

void start_at(Sequencer& s, std::uint64_t sequence) {
    s.started = true;
    s.next = sequence;
    s.highest = sequence;
    s.holes.clear();
    s.waiting.clear();
    s.waiting_bytes = 0;
}

void take_packet(Sequencer& s, const unsigned char* bytes, std::size_t length, std::int64_t now_ms,
                 PacketSource source) {
    PacketRange range;
    if (!accept_packet(s, range, bytes, length)) {
        return;
    }
    if (!s.started) {
        start_at(s, range.first);
    }
    if (range.first == range.end) {
        ++s.counters.heartbeats;
        s.counters.fallen_back += range.first < s.highest && source == PacketSource::multicast ? 1 : 0;
    }
    learn_of(s, range.first, now_ms);
    if (range.first == range.end || range.end <= s.next) {
        s.counters.duplicate_packets += range.first == range.end ? 0 : 1;
        return;
    }
    const bool in_order = range.first <= s.next;
    if (!in_order && s.waiting_bytes + length > s.settings.buffer_bytes_max) {
        // Not kept, so it is missing like a packet that never came, and is asked for when there is room.
        ++s.counters.buffer_full;
        learn_of(s, range.end, now_ms);
        return;
    }
    const std::uint64_t filled = close_holes(s, range.first, range.end, now_ms);
    if (filled == 0 && range.end <= s.highest) {
        ++s.counters.duplicate_packets;
        return;
    }
    s.highest = std::max(s.highest, range.end);
    if (source == PacketSource::retransmission) {
        s.counters.recovered += filled;
    } else if (filled != 0) {
        ++s.counters.reordered_packets;
    }
    if (in_order) {
        deliver(s, bytes);
    } else {
        keep_waiting(s, range, bytes, length);
    }
    drain(s);
}

void take_time(Sequencer& s, std::int64_t now_ms) {
    if (s.holes.empty()) {
        return;
    }
    std::uint64_t asked = s.settings.can_ask ? asked_messages(s) : 0;
    for (std::size_t i = 0; i < s.holes.size(); ++i) {
        Hole& hole = s.holes[i];
        if (hole.given_up || due_ms(s, hole) > now_ms) {
            continue;
        }
        if (!s.settings.can_ask || hole.asked > s.settings.retries) {
            hole.given_up = true;
            continue;
        }
        // With a full buffer only the answer that goes straight through is of use.
        if (buffer_is_full(s) && i != 0) {
            break;
        }
        const std::uint64_t again = hole.asked != 0 ? hole.end - hole.first : 0;
        const std::uint64_t others = asked > again ? asked - again : 0;
        const std::uint64_t room =
            s.settings.asked_messages_max > others ? s.settings.asked_messages_max - others : 0;
        if (!fit_request(s, i, room)) {
            break;
        }
        Hole& ready = s.holes[i];
        asked = others + (ready.end - ready.first);
        send_request(s, ready, now_ms);
    }
    drain(s);
}

std::int64_t wait_ms(const Sequencer& s, std::int64_t now_ms) {
    if (s.holes.empty()) {
        return -1;
    }
    const std::uint64_t asked = s.settings.can_ask ? asked_messages(s) : 0;
    std::int64_t least = s.settings.timeout_ms;
    for (const Hole& hole : s.holes) {
        // What has not been asked for because too much is outstanding waits for answers or their time-out.
        const bool held_up = s.settings.can_ask && hole.asked == 0 && asked >= s.settings.asked_messages_max;
        if (!hole.given_up && !held_up) {
            least = std::min(least, due_ms(s, hole) - now_ms);
        }
    }
    return std::max<std::int64_t>(least, 0);
}

void give_up_all(Sequencer& s) {
    for (Hole& hole : s.holes) {
        hole.given_up = true;
    }
    drain(s);
}

bool nothing_missing(const Sequencer& s) {
    return s.holes.empty();
}

}  // namespace tessel::receiver
