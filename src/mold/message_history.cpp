#include "mold/message_history.h"

#include "mold/packet.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace tessel {

namespace {

constexpr std::size_t message_bytes_max = 65535;
constexpr std::size_t fetched_ahead_bytes = 512;  // some seven messages
static_assert(block_prefix_bytes + message_bytes_max <= retrans_chunk_bytes);

[[gnu::noinline]] void add_chunk(RetransStore& store) {
    RetransChunk chunk;
    chunk.bytes = store.recycled_chunk
                      ? std::move(store.recycled_chunk)
                      : std::unique_ptr<unsigned char[]>(new unsigned char[retrans_chunk_bytes]);
    chunk.first_index = store.end_index;
    store.chunks.push_back(std::move(chunk));
}

// Evicts the oldest message, and its chunk with it when that holds no other. The last chunk stays: it is
// being filled.
void evict_oldest(RetransStore& store) {
    ++store.first_index;
    const RetransChunk& oldest = store.chunks.front();
    if (store.chunks.size() > 1 && oldest.first_index + oldest.blocks <= store.first_index) {
        store.recycled_chunk = std::move(store.chunks.front().bytes);
        store.chunks.pop_front();
    }
}

std::size_t block_bytes(const unsigned char* block) {
    return block_prefix_bytes + static_cast<std::size_t>(read_big_endian(block, 2));
}

}  // namespace

void store_message(RetransStore& store, const unsigned char* message, std::size_t length, std::size_t most) {
    assert(length <= message_bytes_max);
    if (store.chunks.empty() || retrans_chunk_bytes - store.chunks.back().used < block_prefix_bytes + length)
        [[unlikely]] {
        add_chunk(store);
    }
    RetransChunk& chunk = store.chunks.back();
    // The history is larger than the caches: the lines of the messages to come are fetched while these are
    // written.
    __builtin_prefetch(
        chunk.bytes.get() + std::min(chunk.used + fetched_ahead_bytes, retrans_chunk_bytes - 1), 1);
    write_block(chunk.bytes.get() + chunk.used, message, length);
    chunk.used += block_prefix_bytes + length;
    ++chunk.blocks;
    ++store.end_index;
    if (message_count(store) > most) {
        evict_oldest(store);
    }
    assert(chunk.first_index + chunk.blocks == store.end_index);
}

RetransCursor find_message(const RetransStore& store, std::uint64_t index) {
    assert(index >= store.first_index);
    assert(index < store.end_index);
    // The last chunk that begins at or before the message; its blocks are then walked, some 900 of them in a
    // full chunk.
    const auto after = std::upper_bound(
        store.chunks.begin(), store.chunks.end(), index,
        [](std::uint64_t wanted, const RetransChunk& chunk) { return wanted < chunk.first_index; });
    RetransCursor cursor;
    cursor.chunk = static_cast<std::size_t>(after - store.chunks.begin()) - 1;
    const RetransChunk& chunk = store.chunks[cursor.chunk];
    for (cursor.index = chunk.first_index; cursor.index < index; ++cursor.index) {
        cursor.offset += block_bytes(chunk.bytes.get() + cursor.offset);
    }
    assert(cursor.offset < chunk.used);
    return cursor;
}

std::size_t copy_blocks(const RetransStore& store, RetransCursor& cursor, std::uint64_t end, std::size_t most,
                        unsigned char* out, std::size_t room, std::size_t& bytes) {
    assert(end <= store.end_index);
    std::size_t copied = 0;
    bytes = 0;
    while (cursor.index < end && copied < most) {
        const RetransChunk& chunk = store.chunks[cursor.chunk];
        if (cursor.offset == chunk.used) {
            ++cursor.chunk;
            cursor.offset = 0;
            continue;
        }
        // The run of blocks in this chunk that goes in whole.
        const unsigned char* start = chunk.bytes.get() + cursor.offset;
        std::size_t run = 0;
        bool full = false;
        while (cursor.index < end && copied < most && cursor.offset + run < chunk.used) {
            const std::size_t next = block_bytes(start + run);
            if (bytes + run + next > room) {
                full = true;
                break;
            }
            run += next;
            ++copied;
            ++cursor.index;
        }
        std::memcpy(out + bytes, start, run);
        bytes += run;
        cursor.offset += run;
        if (full) {
            break;
        }
    }
    return copied;
}

void skip_block(const RetransStore& store, RetransCursor& cursor) {
    assert(cursor.index < store.end_index);
    if (cursor.offset == store.chunks[cursor.chunk].used) {
        ++cursor.chunk;
        cursor.offset = 0;
    }
    cursor.offset += block_bytes(store.chunks[cursor.chunk].bytes.get() + cursor.offset);
    ++cursor.index;
}

}  // namespace tessel
