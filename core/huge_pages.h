// An allocator for the large arrays that rays read at random: blocks of 2 MiB
// and more are asked to be backed by huge pages, so that a walk over a big
// hierarchy is not slowed by a page-table miss at nearly every node.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

inline constexpr size_t kHugePageBytes = size_t(2) << 20;

template <typename T>
struct HugePageAllocator {
    using value_type = T;

    HugePageAllocator() = default;
    template <typename U>
    HugePageAllocator(const HugePageAllocator<U>&) {}

    // Counts beyond this would overflow the byte count once rounded up.
    static constexpr size_t kLargest = (std::numeric_limits<size_t>::max() / 4) / sizeof(T);

    static bool huge(size_t n) { return n * sizeof(T) >= kHugePageBytes; }
    static size_t rounded(size_t n) { return (n * sizeof(T) + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes; }

    T* allocate(size_t n) {
        if (n > kLargest) throw std::bad_array_new_length();
        if (!huge(n)) return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(alignof(T))));
        void* p = std::aligned_alloc(kHugePageBytes, rounded(n));
        if (!p) throw std::bad_alloc();
        // Only advice: where the system keeps huge pages off, plain pages serve.
        madvise(p, rounded(n), MADV_HUGEPAGE);
        return static_cast<T*>(p);
    }

    void deallocate(T* p, size_t n) {
        if (!huge(n)) ::operator delete(p, std::align_val_t(alignof(T)));
        else std::free(p);
    }

    template <typename U>
    bool operator==(const HugePageAllocator<U>&) const { return true; }
};
