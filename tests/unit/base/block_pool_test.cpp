#include "base/block_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <vector>

namespace tessel {
namespace {

TEST(BlockPool, ManyBlocks_AreApartAndOnesOwn) {
    std::vector<unsigned char*> blocks;
    for (int at = 0; at < 10'000; ++at) {
        blocks.push_back(static_cast<unsigned char*>(allocate_block()));
        std::memset(blocks.back(), at % 251, pooled_block_bytes);
    }
    const std::set<unsigned char*> sorted(blocks.begin(), blocks.end());
    ASSERT_EQ(sorted.size(), blocks.size());
    const unsigned char* before = nullptr;
    for (const unsigned char* const block : sorted) {
        EXPECT_TRUE(before == nullptr || block - before >= static_cast<std::ptrdiff_t>(pooled_block_bytes));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        before = block;
    }
    for (std::size_t at = 0; at < blocks.size(); ++at) {
        ASSERT_EQ(blocks[at][0], at % 251);
        ASSERT_EQ(blocks[at][pooled_block_bytes - 1], at % 251);
        free_block(blocks[at]);
    }
}

TEST(BlockPool, GivenBack_IsTheNextTaken) {
    void* const first = allocate_block();
    void* const second = allocate_block();
    free_block(first);
    free_block(second);
    EXPECT_EQ(allocate_block(), second);
    EXPECT_EQ(allocate_block(), first);
    free_block(first);
    free_block(second);
}

struct Record {
    std::uint64_t words[4];
};

// As trade histories are used: growing at the end, cut at the front, many side by side.
TEST(BlockAllocator, DequesSideBySide_KeepWhatIsTheirs) {
    std::vector<std::deque<Record, BlockAllocator<Record>>> histories(50);
    for (std::uint64_t round = 0; round < 2'000; ++round) {
        for (std::size_t at = 0; at < histories.size(); ++at) {
            histories[at].push_back({{round, at, 0, round ^ at}});
            if (histories[at].size() > 1'000 + at) {
                histories[at].erase(histories[at].begin(), histories[at].begin() + 500);
            }
        }
    }
    for (std::size_t at = 0; at < histories.size(); ++at) {
        std::uint64_t expected = 2'000 - histories[at].size();
        for (const Record& record : histories[at]) {
            ASSERT_EQ(record.words[0], expected);
            ASSERT_EQ(record.words[1], at);
            ASSERT_EQ(record.words[3], expected ^ at);
            ++expected;
        }
    }
}

}  // namespace
}  // namespace tessel
