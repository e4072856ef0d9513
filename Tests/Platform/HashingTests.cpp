#include "QuillmereKit/Platform/Hashing.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace quillmere::test {
namespace {

TEST(HashingTests, EqualSequencesHashEqually) {
    const auto hash = [] { return Hasher{}.add(1).add(std::string("a")).add(std::optional<int>{2}).value(); };

    EXPECT_EQ(hash(), hash());
}

TEST(HashingTests, OrderPresenceAndLengthCount) {
    EXPECT_NE(Hasher{}.add(1).add(2).value(), Hasher{}.add(2).add(1).value());
    EXPECT_NE(Hasher{}.add(std::optional<int>{}).value(), Hasher{}.add(std::optional<int>{0}).value());
    EXPECT_NE(Hasher{}.add(std::vector<int>{1}).add(std::vector<int>{}).value(),
              Hasher{}.add(std::vector<int>{}).add(std::vector<int>{1}).value());
}

TEST(HashingTests, SmallNumbersSpread) {
    std::set<std::size_t> seen;
    for (int first = 0; first < 100; ++first) {
        for (int second = 0; second < 100; ++second) seen.insert(Hasher{}.add(first).add(second).value());
    }

    EXPECT_EQ(seen.size(), 10000U);
}

}  // namespace
}  // namespace quillmere::test
