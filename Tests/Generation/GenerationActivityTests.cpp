#include "QuillmereKit/Generation/GenerationActivity.hpp"

#include <gtest/gtest.h>

namespace quillmere {
namespace {

TEST(GenerationActivityTests, EachCaseHasItsLabel) {
    EXPECT_EQ(GenerationActivity(GenerationActivity::Waiting{5}).label(), "Taking a short break · 5 s");
    EXPECT_EQ(GenerationActivity(GenerationActivity::Waiting{-12}).label(), "Taking a short break · -12 s");
    EXPECT_EQ(GenerationActivity(GenerationActivity::Loading{}).label(), "Getting ready");
    EXPECT_EQ(GenerationActivity(GenerationActivity::Running{}).label(), "Creating music");
}

TEST(GenerationActivityTests, EqualityIsByCaseAndPayload) {
    const GenerationActivity two = GenerationActivity::Waiting{2};

    EXPECT_EQ(two, GenerationActivity(GenerationActivity::Waiting{2}));
    EXPECT_NE(two, GenerationActivity(GenerationActivity::Waiting{3}));
    EXPECT_NE(two, GenerationActivity(GenerationActivity::Loading{}));
    EXPECT_NE(GenerationActivity(GenerationActivity::Running{}), GenerationActivity(GenerationActivity::Loading{}));
}

TEST(GenerationActivityTests, OnlyWaitingIsWaiting) {
    EXPECT_TRUE(GenerationActivity(GenerationActivity::Waiting{1}).isWaiting());
    EXPECT_FALSE(GenerationActivity(GenerationActivity::Loading{}).isWaiting());
    EXPECT_FALSE(GenerationActivity(GenerationActivity::Running{}).isWaiting());
}

}  // namespace
}  // namespace quillmere
