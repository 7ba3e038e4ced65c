#pragma once

#include <sys/mman.h>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace tessel {

// An allocator for the arrays that every tick walks from end to end. With thousands of instruments a page of
// 4 KiB holds few of them, and the address translation of the next one would be missing at each step: large
// arrays therefore ask the kernel for pages of 2 MiB, and get ordinary ones where it has none.
template <typename T>
struct HugePageAllocator {
    using value_type = T;

    static constexpr std::size_t huge_page_bytes = std::size_t{2} << 20;
    static constexpr std::size_t cache_line_bytes = 64;

    HugePageAllocator() = default;
    template <typename U>
    explicit HugePageAllocator(const HugePageAllocator<U>& /*other*/) {}

    T* allocate(std::size_t count) {
        const std::size_t bytes = count * sizeof(T);
        const std::size_t page = bytes >= huge_page_bytes / 2 ? huge_page_bytes : cache_line_bytes;
        void* memory = std::aligned_alloc(page, (bytes + page - 1) / page * page);
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        if (page == huge_page_bytes) {
            // Advice only: a refusal costs speed, nothing else.
            static_cast<void>(madvise(memory, (bytes + page - 1) / page * page, MADV_HUGEPAGE));
        }
        return static_cast<T*>(memory);
    }

    void deallocate(T* memory, std::size_t /*count*/) {
        std::free(memory);
    }

    template <typename U>
    bool operator==(const HugePageAllocator<U>& /*other*/) const {
        return true;
    }
};

}  // namespace tessel
