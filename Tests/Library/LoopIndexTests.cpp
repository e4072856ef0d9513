#include "QuillmereKit/Library/LoopIndex.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace quillmere {
namespace {

struct LoopIndexTests : testing::Test {
    SharedTexts texts;
    LoopIndex index;
    std::map<std::uint64_t, StoredLoop*> expected;

    void insert(std::uint64_t key) {
        LoopArtifact artifact{.identity = {}, .url = FileURL::fromPath("/a.wav")};
        index.reserve(index.size() + 1);
        expected[key] = &index.insert(std::make_unique<StoredLoop>(LoopKey{key}, std::move(artifact), texts));
    }

    void remove(const std::vector<std::uint64_t>& keys) {
        for (const auto key : keys) {
            expected.at(key)->isLeaving = true;
            expected.erase(key);
        }
        index.removeLeaving();
    }

    void expectSame() const {
        ASSERT_EQ(index.size(), expected.size());
        for (const auto& [key, loop] : expected) {
            ASSERT_EQ(index.find({key}), loop);
            ASSERT_EQ(loop->key.value, key);
        }
        std::size_t visited = 0;
        index.forEach([&](const StoredLoop& loop) {
            ++visited;
            ASSERT_EQ(expected.at(loop.key.value), &loop);
        });
        ASSERT_EQ(visited, expected.size());
    }
};

TEST_F(LoopIndexTests, EmptyIndexHoldsNothing) {
    EXPECT_EQ(index.find({0}), nullptr);
    index.removeLeaving();
    expectSame();
}

TEST_F(LoopIndexTests, PiecesAreFoundAtTheirAddressesWhateverComesAndGoes) {
    std::mt19937_64 random(11);
    // Many alike in their last bits, so that they crowd, also over the end of the table.
    const auto key = [&] {
        return random() % 40 << 32 | (random() % 3 == 0 ? 0xFFFF'FFFE + random() % 2 : random() % 8);
    };
    for (int round = 0; round < 300; ++round) {
        for (auto count = random() % 12; count > 0; --count) {
            const auto fresh = key();
            if (!expected.contains(fresh)) insert(fresh);
            ASSERT_EQ(index.find({fresh}), expected.at(fresh));
        }
        std::vector<std::uint64_t> leaving;
        const auto share = random() % 4;
        for (const auto& [present, loop] : expected) {
            if (random() % 4 < share) leaving.push_back(present);
        }
        remove(leaving);

        for (const auto gone : leaving) ASSERT_EQ(index.find({gone}), nullptr);
        expectSame();
    }
}

TEST_F(LoopIndexTests, SharedTextIsForgottenWhenNoPieceUsesIt) {
    const auto kept = texts.share("kept");
    const auto* const address = &*kept;
    for (int count = 0; count < 100; ++count) static_cast<void>(texts.share("gone " + std::to_string(count)));
    SharedTexts::use(kept);

    texts.sweep();

    EXPECT_EQ(&*texts.share("kept"), address);
    EXPECT_EQ(*texts.share("gone 1"), "gone 1");
    EXPECT_EQ(texts.share("gone 1"), texts.share("gone 1"));
}

}  // namespace
}  // namespace quillmere
