#include "QuillmereKit/Platform/PageAligned.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace quillmere {
namespace {

TEST(PageAlignedTests, MemoryOfAnySizeBeginsWhereAPageDoes) {
    constexpr std::uintptr_t pageSize = 4096;
    std::vector<PageAligned<std::int16_t>> held;  // so that each gets memory of its own
    for (const std::size_t count : {1U, 3U, 2047U, 2048U, 2049U, 16384U, 100'000U}) {
        auto& samples = held.emplace_back(count, std::int16_t{7});
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(samples.data()) % pageSize, 0U) << count;
        samples.resize(2 * count);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(samples.data()) % pageSize, 0U) << count;
        EXPECT_EQ(samples[count - 1], 7);
    }
}

}  // namespace
}  // namespace quillmere
