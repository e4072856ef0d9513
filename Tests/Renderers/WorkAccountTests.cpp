#include "Renderers/Supervisor/WorkAccount.hpp"

#include <gtest/gtest.h>

namespace quillmere::supervisor {
namespace {

using std::chrono::milliseconds;

struct WorkAccountTests : testing::Test {
    static constexpr double share = 0.25;
    WorkAccount account{share, milliseconds(1000)};
    WorkAccount::Clock::time_point now{};
    milliseconds work{0};

    WorkAccountTests() { account.book(now, work); }

    void pass(milliseconds time, milliseconds worked) {
        now += time;
        work += worked;
        account.book(now, work);
    }
};

TEST_F(WorkAccountTests, TheWorkThatIsFreeAtTheBeginningIsSpentOnce) {
    pass(milliseconds(800), milliseconds(800));  // pays 200, takes 800
    EXPECT_FALSE(account.isOverdrawn());
    pass(milliseconds(400), milliseconds(400));  // 1000 - 600 - 300
    EXPECT_FALSE(account.isOverdrawn());
    pass(milliseconds(400), milliseconds(400));
    EXPECT_TRUE(account.isOverdrawn());
}

TEST_F(WorkAccountTests, RestPaysIn) {
    pass(milliseconds(2000), milliseconds(2000));  // overdrawn by 500
    pass(milliseconds(1996), milliseconds(0));
    EXPECT_TRUE(account.isOverdrawn());
    pass(milliseconds(4), milliseconds(0));
    EXPECT_FALSE(account.isOverdrawn());
}

TEST_F(WorkAccountTests, NoMoreIsSavedUpThanWasFreeAtTheBeginning) {
    pass(std::chrono::hours(1), milliseconds(0));
    pass(milliseconds(1200), milliseconds(1200));  // 1000 + 300 - 1200
    EXPECT_FALSE(account.isOverdrawn());
    pass(milliseconds(140), milliseconds(140));  // 100 + 35 - 140
    EXPECT_TRUE(account.isOverdrawn());
}

TEST_F(WorkAccountTests, WhoKeepsToItsShareIsNeverOverdrawn) {
    pass(milliseconds(1000), milliseconds(1000));
    for (int i = 0; i < 1000; ++i) {
        pass(milliseconds(400), milliseconds(100));
        ASSERT_FALSE(account.isOverdrawn());
    }
}

TEST_F(WorkAccountTests, SeveralProcessorsAtOnceAreOneStretchOfWork) {
    pass(milliseconds(1000), milliseconds(8000));
    EXPECT_FALSE(account.isOverdrawn());
}

TEST_F(WorkAccountTests, WorkThatIsMissingFromOneLookIsNotTakenTwice) {
    pass(milliseconds(900), milliseconds(900));
    pass(milliseconds(100), milliseconds(-500));
    pass(milliseconds(600), milliseconds(500));  // no more than at the first look
    EXPECT_FALSE(account.isOverdrawn());
}

}  // namespace
}  // namespace quillmere::supervisor
