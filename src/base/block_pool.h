#pragma once

#include <cstddef>
#include <new>

namespace tessel {

// Small blocks of one size, for what grows a little at a time in thousands of places: the trade
// histories. They are carved from large pages; freed blocks are reused first, so that growing costs
// neither an allocation nor a copy of what is there, and rarely a new page. Their memory stays with the
// process.
constexpr std::size_t pooled_block_bytes = 512;  // a node of a deque

void* allocate_block();
void free_block(void* block);

// Lets a deque have its nodes from the pool.
template <typename T>
struct BlockAllocator {
    using value_type = T;
    struct Held {
        T one;
    };

    BlockAllocator() = default;
    template <typename U>
    explicit BlockAllocator(const BlockAllocator<U>& /*other*/) {}

    T* allocate(std::size_t count) {
        const std::size_t bytes = count * sizeof(Held);
        return static_cast<T*>(bytes == pooled_block_bytes ? allocate_block() : ::operator new(bytes));
    }

    void deallocate(T* memory, std::size_t count) {
        if (count * sizeof(Held) == pooled_block_bytes) {
            free_block(memory);
        } else {
            ::operator delete(memory);
        }
    }

    template <typename U>
    bool operator==(const BlockAllocator<U>& /*other*/) const {
        return true;
    }
};

}  // namespace tessel
