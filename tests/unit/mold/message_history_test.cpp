#include "mold/message_history.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using Bytes = std::vector<unsigned char>;

// A message whose bytes show its number; lengths vary so that chunks end at odd places.
Bytes message_of(std::uint64_t index) {
    Bytes message(29 + index % 120);
    for (std::size_t at = 0; at < message.size(); ++at) {
        message[at] = static_cast<unsigned char>(index * 31 + at);
    }
    return message;
}

Bytes block_of(const Bytes& message) {
    Bytes block{static_cast<unsigned char>(message.size() / 256),
                static_cast<unsigned char>(message.size() % 256)};
    block.insert(block.end(), message.begin(), message.end());
    return block;
}

void fill(RetransStore& store, std::uint64_t count, std::size_t most) {
    for (std::uint64_t added = 0; added < count; ++added) {
        const Bytes message = message_of(store.end_index);
        store_message(store, message.data(), message.size(), most);
    }
}

// Everything from `first` up to `end`, read in pieces of at most `most` messages and `room` bytes.
Bytes read_all(const RetransStore& store, std::uint64_t first, std::uint64_t end, std::size_t most,
               std::size_t room) {
    Bytes all;
    Bytes piece(room);
    RetransCursor cursor = find_message(store, first);
    while (cursor.index < end) {
        std::size_t bytes = 0;
        const std::uint64_t before = cursor.index;
        const std::size_t copied = copy_blocks(store, cursor, end, most, piece.data(), room, bytes);
        EXPECT_GT(copied, 0u);
        EXPECT_LE(copied, most);
        EXPECT_LE(bytes, room);
        EXPECT_EQ(cursor.index, before + copied);
        if (copied == 0) {
            break;
        }
        all.insert(all.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(bytes));
    }
    return all;
}

Bytes expected_blocks(std::uint64_t first, std::uint64_t end) {
    Bytes all;
    for (std::uint64_t index = first; index < end; ++index) {
        const Bytes block = block_of(message_of(index));
        all.insert(all.end(), block.begin(), block.end());
    }
    return all;
}

TEST(MessageHistory, Empty_HoldsNothing) {
    const RetransStore store;
    EXPECT_EQ(message_count(store), 0u);
}

TEST(MessageHistory, OverManyChunks_ReadBackFromTheStartInPacketsOfAnySize) {
    RetransStore store;
    fill(store, 3000, 1'000'000);
    ASSERT_GT(store.chunks.size(), 3u);
    const Bytes expected = expected_blocks(0, 3000);
    EXPECT_EQ(read_all(store, 0, 3000, 65534, 1480), expected);
    EXPECT_EQ(read_all(store, 0, 3000, 1, 1480), expected);
    EXPECT_EQ(read_all(store, 0, 3000, 65534, 150), expected);  // one or a few at a time
    EXPECT_EQ(read_all(store, 0, 3000, 65534, 1'000'000), expected);
}

TEST(MessageHistory, Find_EveryMessageByItsNumber) {
    RetransStore store;
    fill(store, 2500, 2000);
    ASSERT_EQ(store.first_index, 500u);
    ASSERT_EQ(store.end_index, 2500u);
    for (std::uint64_t index = 500; index < 2500; ++index) {
        RetransCursor cursor = find_message(store, index);
        EXPECT_EQ(cursor.index, index);
        unsigned char out[200];
        std::size_t bytes = 0;
        ASSERT_EQ(copy_blocks(store, cursor, index + 1, 10, out, sizeof out, bytes), 1u);
        ASSERT_EQ(Bytes(out, out + bytes), block_of(message_of(index))) << index;
    }
}

TEST(MessageHistory, OneMoreThanMost_TheOldestIsGivenUp) {
    RetransStore store;
    fill(store, 100, 100);
    EXPECT_EQ(store.first_index, 0u);
    EXPECT_EQ(message_count(store), 100u);
    fill(store, 1, 100);
    EXPECT_EQ(store.first_index, 1u);
    EXPECT_EQ(message_count(store), 100u);
    EXPECT_EQ(read_all(store, 1, 101, 65534, 1480), expected_blocks(1, 101));
}

TEST(MessageHistory, ManyTimesAround_MemoryStaysBounded) {
    RetransStore store;
    fill(store, 2000, 2000);
    const std::size_t chunks = store.chunks.size();
    for (int round = 0; round < 20; ++round) {
        fill(store, 1999, 2000);
        EXPECT_LE(store.chunks.size(), chunks + 2);
        EXPECT_EQ(message_count(store), 2000u);
    }
    EXPECT_EQ(read_all(store, store.first_index, store.end_index, 65534, 1480),
              expected_blocks(store.first_index, store.end_index));
}

TEST(MessageHistory, LastMessageOfAChunkGivenUp_TheChunkGoesWithIt) {
    RetransStore store;
    const Bytes message(40'000, 7);  // one a chunk
    store_message(store, message.data(), message.size(), 1);
    store_message(store, message.data(), message.size(), 1);
    EXPECT_EQ(message_count(store), 1u);
    EXPECT_EQ(store.chunks.size(), 1u);
}

TEST(MessageHistory, ChunkGivenUp_IsTheNextOneUsed) {
    RetransStore store;
    while (!store.recycled_chunk) {
        fill(store, 1, 1000);
    }
    const unsigned char* const kept = store.recycled_chunk.get();
    while (store.recycled_chunk) {
        fill(store, 1, 1000);
    }
    EXPECT_EQ(store.chunks.back().bytes.get(), kept);
}

TEST(MessageHistory, NoRoomForTheNextBlock_CopiesNothingAndStays) {
    RetransStore store;
    const Bytes message(60, 'x');
    store_message(store, message.data(), message.size(), 10);
    RetransCursor cursor = find_message(store, 0);
    unsigned char out[62];
    std::size_t bytes = 99;
    EXPECT_EQ(copy_blocks(store, cursor, 1, 10, out, 61, bytes), 0u);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(cursor.index, 0u);
    EXPECT_EQ(copy_blocks(store, cursor, 1, 10, out, 62, bytes), 1u);
    EXPECT_EQ(bytes, 62u);
}

TEST(MessageHistory, CopyWithAnEnd_StopsThere) {
    RetransStore store;
    fill(store, 50, 100);
    RetransCursor cursor = find_message(store, 10);
    Bytes out(100'000);
    std::size_t bytes = 0;
    EXPECT_EQ(copy_blocks(store, cursor, 20, 65534, out.data(), out.size(), bytes), 10u);
    out.resize(bytes);
    EXPECT_EQ(out, expected_blocks(10, 20));
    EXPECT_EQ(copy_blocks(store, cursor, 20, 65534, out.data(), out.size(), bytes), 0u);
}

TEST(MessageHistory, LongestAndEmptyMessages_AreKeptWhole) {
    RetransStore store;
    const Bytes longest(65535, 'L');
    store_message(store, longest.data(), longest.size(), 10);
    store_message(store, longest.data(), 0, 10);
    store_message(store, longest.data(), longest.size(), 10);
    RetransCursor cursor = find_message(store, 0);
    Bytes out(3 * 65537);
    std::size_t bytes = 0;
    EXPECT_EQ(copy_blocks(store, cursor, 3, 65534, out.data(), out.size(), bytes), 3u);
    out.resize(bytes);
    Bytes expected = block_of(longest);
    const Bytes empty = block_of({});
    expected.insert(expected.end(), empty.begin(), empty.end());
    const Bytes last = block_of(longest);
    expected.insert(expected.end(), last.begin(), last.end());
    EXPECT_EQ(out, expected);
}

TEST(MessageHistory, Skip_PassesOverOneBlockAlsoAtAChunksEnd) {
    RetransStore store;
    fill(store, 2000, 10'000);
    RetransCursor cursor = find_message(store, 0);
    unsigned char out[200];
    for (std::uint64_t index = 0; index < 2000; index += 2) {
        skip_block(store, cursor);
        std::size_t bytes = 0;
        ASSERT_EQ(copy_blocks(store, cursor, 2000, 1, out, sizeof out, bytes), 1u);
        ASSERT_EQ(Bytes(out, out + bytes), block_of(message_of(index + 1))) << index;
    }
    EXPECT_EQ(cursor.index, 2000u);
}

}  // namespace
}  // namespace tessel
