#include "base/block_pool.h"

#include "base/huge_pages.h"

#include <cstddef>

namespace tessel {

namespace {

using PageAllocator = HugePageAllocator<std::byte>;

// What the pool carves its blocks from. A memory resource can only be made by derivation.
class HugePages final : public std::pmr::memory_resource {
    void* do_allocate(std::size_t bytes, std::size_t /*alignment: of a cache line at least*/) override {
        return PageAllocator{}.allocate(bytes);
    }
    void do_deallocate(void* memory, std::size_t bytes, std::size_t /*alignment*/) override {
        PageAllocator{}.deallocate(static_cast<std::byte*>(memory), bytes);
    }
    [[nodiscard]] bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        return this == &other;
    }
};

constexpr std::size_t largest_block_bytes = 512;  // a node of a deque
// What is carved at a time grows up to this, which with the pool's own notes just fits a large page.
constexpr std::size_t blocks_per_page = 4064;

}  // namespace

std::pmr::memory_resource& block_pool() {
    static HugePages pages;
    static std::pmr::unsynchronized_pool_resource pool({blocks_per_page, largest_block_bytes}, &pages);
    return pool;
}

}  // namespace tessel
