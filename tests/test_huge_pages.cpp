// Arrays on huge pages grow and shrink across the huge-block threshold with
// their contents intact; large blocks start on a huge-page boundary.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "core/huge_pages.h"

TEST(HugePages, ArraysKeepTheirContentsAcrossTheThreshold) {
    struct alignas(64) Line {
        uint32_t value[16];
    };
    std::vector<Line, HugePageAllocator<Line>> lines;
    const size_t many = 3 * kHugePageBytes / sizeof(Line);
    for (size_t i = 0; i < many; ++i) lines.push_back(Line{{uint32_t(i)}});
    EXPECT_EQ(reinterpret_cast<uintptr_t>(lines.data()) % kHugePageBytes, 0u);
    for (size_t i = 0; i < many; i += 997) ASSERT_EQ(lines[i].value[0], i);
    // Back below the threshold: the small block keeps the type's alignment.
    lines.resize(100);
    lines.shrink_to_fit();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(lines.data()) % alignof(Line), 0u);
    EXPECT_EQ(lines[99].value[0], 99u);
}
