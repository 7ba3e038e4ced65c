#include "base/block_pool.h"

#include "base/huge_pages.h"

#include <algorithm>
#include <vector>

namespace tessel {

namespace {

// What is cut into blocks: small at first, then as much again as there is, up to a large page at a time.
constexpr std::size_t slab_bytes_min = std::size_t{64} << 10;
constexpr std::size_t slab_bytes_max = std::size_t{2} << 20;

union alignas(std::max_align_t) Block {
    Block* next;  // of those given back
    unsigned char bytes[pooled_block_bytes];
};
static_assert(sizeof(Block) == pooled_block_bytes);

struct BlockPool {
    Block* free_list = nullptr;
    Block* next = nullptr;  // of the latest slab: not yet used
    Block* end = nullptr;
    std::size_t bytes = 0;  // of all slabs
    std::vector<std::vector<Block, HugePageAllocator<Block>>> slabs;
};

// One a process, like the market: the instruments are moved about and would each have to carry a reference.
BlockPool pool;

[[gnu::noinline]] void add_slab() {
    const std::size_t bytes = std::clamp(pool.bytes, slab_bytes_min, slab_bytes_max);
    auto& slab = pool.slabs.emplace_back();
    slab.reserve(bytes / sizeof(Block));  // never filled: the blocks belong to the callers
    pool.next = slab.data();
    pool.end = pool.next + bytes / sizeof(Block);
    pool.bytes += bytes;
}

}  // namespace

void* allocate_block() {
    if (pool.free_list != nullptr) {
        Block* const block = pool.free_list;
        pool.free_list = block->next;
        return block;
    }
    if (pool.next == pool.end) [[unlikely]] {
        add_slab();
    }
    return pool.next++;
}

void free_block(void* block) {
    pool.free_list = ::new (block) Block{pool.free_list};
}

}  // namespace tessel
