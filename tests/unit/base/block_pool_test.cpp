#include "base/block_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <vector>

namespace tessel {
namespace {

constexpr std::size_t node_bytes = 512;  // of a deque

std::vector<unsigned char*> take_blocks(std::size_t count) {
    std::vector<unsigned char*> blocks;
    for (std::size_t at = 0; at < count; ++at) {
        blocks.push_back(static_cast<unsigned char*>(block_pool().allocate(node_bytes)));
        std::memset(blocks.back(), static_cast<int>(at % 251), node_bytes);
    }
    return blocks;
}

void give_back(const std::vector<unsigned char*>& blocks) {
    for (unsigned char* const block : blocks) {
        block_pool().deallocate(block, node_bytes);
    }
}

TEST(BlockPool, ManyBlocks_AreApartAndOnesOwn) {
    const std::vector<unsigned char*> blocks = take_blocks(10'000);
    const std::set<unsigned char*> sorted(blocks.begin(), blocks.end());
    ASSERT_EQ(sorted.size(), blocks.size());
    const unsigned char* before = nullptr;
    for (const unsigned char* const block : sorted) {
        EXPECT_TRUE(before == nullptr || block - before >= static_cast<std::ptrdiff_t>(node_bytes));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        before = block;
    }
    for (std::size_t at = 0; at < blocks.size(); ++at) {
        ASSERT_EQ(blocks[at][0], at % 251);
        ASSERT_EQ(blocks[at][node_bytes - 1], at % 251);
    }
    give_back(blocks);
}

// Which of its free blocks the pool gives next is its own affair, and other tests have left it some.
TEST(BlockPool, GivenBack_AreTakenAgain) {
    std::set<unsigned char*> seen;
    for (int round = 0; round < 50; ++round) {
        const std::vector<unsigned char*> blocks = take_blocks(5'000);
        seen.insert(blocks.begin(), blocks.end());
        give_back(blocks);
    }
    EXPECT_LT(seen.size(), 50'000u);  // of 250,000 taken
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
