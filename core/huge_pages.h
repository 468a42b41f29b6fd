// An allocator for the large arrays that rays read at random: blocks of 2 MiB
// and more are asked to be backed by huge pages, so that a walk over a big
// hierarchy is not slowed by a page-table miss at nearly every node.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>
#include <vector>

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

    // An element made without a value is left as its type leaves it: the
    // arrays here are filled right after they grow, and zeroing them first
    // would write every byte twice, the first time on one thread.
    template <typename U>
    void construct(U* p) {
        ::new (static_cast<void*>(p)) U;
    }
    template <typename U, typename... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }

    template <typename U>
    bool operator==(const HugePageAllocator<U>&) const { return true; }
};

// Grows `v` to `n` elements, its new pages first touched on all threads. The
// system clears a page at its first write, which on large arrays costs more
// than filling them: a plain resize would do all of it on one thread. Room
// the caller reserved is used as it is; more is asked for as resize would.
template <typename T>
void resizeOnAllThreads(std::vector<T, HugePageAllocator<T>>& v, size_t n) {
    if (n <= v.size()) {
        v.resize(n);
        return;
    }
    if (n > v.capacity()) v.reserve(std::max(n, 2 * v.capacity()));
    constexpr ptrdiff_t kPage = 4096;
    char* from = reinterpret_cast<char*>(v.data() + v.size());
    const ptrdiff_t bytes = reinterpret_cast<char*>(v.data() + n) - from;
    const long long pages = (long long)((bytes + kPage - 1) / kPage);
#pragma omp parallel for schedule(static) if (pages >= 1024)
    for (long long i = 0; i < pages; ++i) from[i * kPage] = 0;
    v.resize(n);
}

// Empties `v` and gives its memory back. Assigning {} to a vector keeps its
// room, which on the arrays of preparation would hold gigabytes through the
// render.
template <typename T, typename A>
void release(std::vector<T, A>& v) {
    std::vector<T, A>().swap(v);
}
