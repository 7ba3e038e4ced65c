// Any request datagram to a publisher that keeps messages of every length: the answer is what is wanted and
// kept, in order, in whole packets, and nothing else.
//
// The first byte says which publisher is asked: one that has evicted its oldest messages (even) or a young
// one whose messages have odd lengths, some too long for any packet (odd).

#include "fuzz_check.h"
#include "mold/packet.h"
#include "mold/retransmission_server.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using namespace tessel;
using fuzz::check;

using Bytes = std::vector<unsigned char>;

constexpr std::uint64_t given_up = 5'000;
constexpr std::uint64_t young_messages = 700;
constexpr std::size_t sendable_max = packet_bytes_max - mold_header_bytes - block_prefix_bytes;

// The n-th message of a publisher: its number in its bytes, in a length that differs from the next one's.
Bytes message_of(std::uint64_t sequence, bool young) {
    std::size_t length = 8 + sequence % 5;
    if (young) {
        constexpr std::size_t odd_lengths[] = {
            8, 29, 31, 32, 33, 256, 257, 700, sendable_max, sendable_max + 1, 65535};
        length = odd_lengths[sequence % std::size(odd_lengths)];
    }
    Bytes message(length, static_cast<unsigned char>(sequence * 31));
    write_big_endian(message.data(), sequence, 8);
    return message;
}

void forget(void* /*context*/, const unsigned char* /*packet*/, std::size_t /*length*/) {}

struct Asked {
    Clock clock;
    MoldPublisher publisher;
    bool young = false;
    std::uint64_t oldest = 1;
};

std::unique_ptr<Asked> make_asked(std::uint64_t messages, bool young) {
    auto asked = std::make_unique<Asked>();
    asked->clock.simulated = true;
    asked->young = young;
    reset_publisher(asked->publisher, asked->clock, "UTPBENCH01");
    asked->publisher.sink = {forget, nullptr};
    for (std::uint64_t sequence = 1; sequence <= messages; ++sequence) {
        const Bytes message = message_of(sequence, young);
        append_message(asked->publisher, message.data(), message.size());
    }
    asked->oldest = messages > history_messages_max ? messages - history_messages_max + 1 : 1;
    return asked;
}

// Follows the replies of one request as they come.
struct Replies {
    const Asked* asked = nullptr;
    std::uint64_t next = 0;  // the number that has to come next
    std::uint64_t end = 0;
    std::size_t packets = 0;
};

void pass_over_unsendable(Replies& replies) {
    while (replies.next < replies.end &&
           message_of(replies.next, replies.asked->young).size() > sendable_max) {
        ++replies.next;
    }
}

void take_reply(void* context, const unsigned char* packet, std::size_t length) {
    Replies& replies = *static_cast<Replies*>(context);
    ++replies.packets;
    check(length > mold_header_bytes && length <= packet_bytes_max, "a reply's length");
    check(std::memcmp(packet, "UTPBENCH01", mold_session_bytes) == 0, "a reply's session");
    pass_over_unsendable(replies);
    check(read_big_endian(packet + 10, 8) == replies.next, "a reply begins where the last one ended");
    const std::uint64_t count = read_big_endian(packet + 18, 2);
    check(count > 0, "a reply holds messages");
    std::size_t at = mold_header_bytes;
    for (std::uint64_t each = 0; each < count; ++each, ++replies.next) {
        check(replies.next < replies.end, "no message that was not asked for");
        const Bytes expected = message_of(replies.next, replies.asked->young);
        check(at + 2 <= length && read_big_endian(packet + at, 2) == expected.size(), "a block's length");
        at += 2 + expected.size();
        check(at <= length, "a block goes over the packet's end");
        check(std::equal(expected.begin(), expected.end(), packet + at - expected.size()), "a message");
    }
    check(at == length, "bytes after the last block");
    // As few packets as possible: the next message would not have fitted.
    const bool is_more = replies.next < replies.end;
    check(!is_more || at + 2 + message_of(replies.next, replies.asked->young).size() > packet_bytes_max,
          "a reply has room left");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const std::unique_ptr<Asked> old_one = make_asked(history_messages_max + given_up, false);
    static const std::unique_ptr<Asked> young_one = make_asked(young_messages, true);
    if (size == 0) {
        return 0;
    }
    Asked& asked = data[0] % 2 == 0 ? *old_one : *young_one;
    const Bytes request(data + 1, data + size);
    const bool is_whole = request.size() >= retrans_request_bytes;
    const bool is_ours = is_whole && std::memcmp(request.data(), "UTPBENCH01", mold_session_bytes) == 0;
    Replies replies{&asked, 0, 0, 0};
    if (is_ours) {
        const std::uint64_t wanted = read_big_endian(request.data() + 10, 8);
        const std::uint64_t count = read_big_endian(request.data() + 18, 2);
        replies.next = std::max(wanted, asked.oldest);
        // The end wraps past the last number there can be: such a request brings nothing.
        replies.end = std::min(wanted + count, asked.publisher.next_sequence);
    }
    const std::uint64_t served = asked.publisher.retrans_served;
    const std::uint64_t rejected = asked.publisher.retrans_rejected;
    const std::uint64_t next_sequence = asked.publisher.next_sequence;
    const bool taken =
        answer_request(asked.publisher, request.data(), request.size(), {take_reply, &replies});
    check(taken == is_whole, "only a datagram that is too short ends the draining");
    check(asked.publisher.retrans_served - served == (is_ours ? 1u : 0u), "requests served");
    check(asked.publisher.retrans_rejected - rejected == (is_whole && !is_ours ? 1u : 0u),
          "requests rejected");
    check(asked.publisher.next_sequence == next_sequence, "a request uses up no number");
    pass_over_unsendable(replies);
    check(replies.next >= replies.end, "everything that was asked for and is kept has come");
    check(is_ours || replies.packets == 0, "nobody else is answered");
    return 0;
}
