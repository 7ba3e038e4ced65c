#pragma once

#include <cstddef>
#include <memory_resource>

namespace tessel {

// Small blocks for what grows a little at a time in thousands of places: the trade histories. They are
// carved from large pages and freed ones are reused, so that growing costs neither an allocation nor a copy
// of what is there. One pool for the process, which has one thread; its memory stays with the process.
std::pmr::memory_resource& block_pool();

// Lets a container have its memory from the pool. Without a member, unlike the library's own allocator: the
// instruments are moved about and would each have to carry a reference.
template <typename T>
struct BlockAllocator {
    using value_type = T;

    BlockAllocator() = default;
    template <typename U>
    explicit BlockAllocator(const BlockAllocator<U>& /*other*/) {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(block_pool().allocate(count * sizeof(T), alignof(T)));
    }

    void deallocate(T* memory, std::size_t count) {
        block_pool().deallocate(memory, count * sizeof(T), alignof(T));
    }

    template <typename U>
    bool operator==(const BlockAllocator<U>& /*other*/) const {
        return true;
    }
};

}  // namespace tessel
