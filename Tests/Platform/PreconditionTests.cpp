#include "QuillmereKit/Platform/Precondition.hpp"

#include <gtest/gtest.h>

namespace quillmere::test {
namespace {

TEST(PreconditionTests, RuleThatHoldsDoesNothing) { precondition(true, "One is one."); }

TEST(PreconditionDeathTests, BrokenRuleStopsTheProcessNamingRuleAndCaller) {
    EXPECT_EXIT(precondition(false, "One is two."), testing::KilledBySignal(SIGABRT),
                "PreconditionTests\\.cpp:[0-9]+: Fatal error: One is two\\.");
}

TEST(PreconditionDeathTests, FixedPlaceIsPrintedWhereOneIsGiven) {
    EXPECT_EXIT(fatalError("Lost.", "Some/File.cpp", 12), testing::KilledBySignal(SIGABRT),
                "Some/File\\.cpp:12: Fatal error: Lost\\.");
}

}  // namespace
}  // namespace quillmere::test
