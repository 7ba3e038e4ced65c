#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

namespace tessel {

// Messages are kept as ready MoldUDP64 blocks (2-byte big-endian length, then the message) back to
// back in chunks of this size, so that a reply copies whole runs of them, and what is kept costs 2 bytes a
// message beyond its bytes.
constexpr std::size_t retrans_chunk_bytes = 65536 + 2;

struct RetransChunk {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t used = 0;
    std::uint64_t first_index = 0;  // running number (from 0) of the first block in it
    std::size_t blocks = 0;         // blocks ever put into it
};

// The most recent messages, oldest first. Message number `first_index + n` is the n-th kept; numbers count
// every message ever put in, from 0, so index = sequence - 1.
struct RetransStore {
    std::deque<RetransChunk> chunks;
    std::unique_ptr<unsigned char[]> recycled_chunk;  // of the last one evicted, kept for the next
    std::uint64_t first_index = 0;
    std::uint64_t end_index = 0;
};

inline std::uint64_t message_count(const RetransStore& store) {
    return store.end_index - store.first_index;
}

// Adds one message (at most 65,535 bytes) and evicts the oldest when there are more than `most`.
void store_message(RetransStore& store, const unsigned char* message, std::size_t length, std::size_t most);

// A place in the store from which blocks are read in order.
struct RetransCursor {
    std::size_t chunk = 0;
    std::size_t offset = 0;
    std::uint64_t index = 0;
};

// The place of message number index, which must be kept (first_index <= index < end_index).
RetransCursor find_message(const RetransStore& store, std::uint64_t index);

// Copies as many whole blocks as fit into room bytes and `most` messages, from the cursor on, up to message
// number end (exclusive); advances the cursor. Returns the messages copied; bytes takes the bytes written.
std::size_t copy_blocks(const RetransStore& store, RetransCursor& cursor, std::uint64_t end, std::size_t most,
                        unsigned char* out, std::size_t room, std::size_t& bytes);

// Passes over the block at the cursor, which must not be at the end of the store.
void skip_block(const RetransStore& store, RetransCursor& cursor);

}  // namespace tessel
