#include "QuillmereKit/Playback/PlaybackState.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quillmere {
namespace {

using State = PlaybackState;
using Failure = PlaybackState::Failure;

PlaybackState downloading(double progress) { return {State::DownloadingModel{progress}}; }

TEST(PlaybackStateTests, EachCaseHasItsIconControlAndStatus) {
    struct Row {
        PlaybackState state;
        MenuBarIcon icon;
        bool isPlaying;
        bool canToggle;
        std::optional<std::string> status;
    };
    const Row rows[] = {
        {downloading(0.5), MenuBarIcon::generating, false, false, "Downloading music files — 50%"},
        {{State::Error{Failure::Recoverable{"Try again."}}}, MenuBarIcon::idle, false, true, "Try again."},
        {{State::Error{Failure::Fatal{"Broken."}}}, MenuBarIcon::idle, false, false, "Broken."},
        {{State::Cold{}}, MenuBarIcon::generating, false, false, "Starting up"},
        {{State::WarmingUp{}}, MenuBarIcon::generating, false, false, "Warming up"},
        {{State::Ready{}}, MenuBarIcon::idle, false, true, std::nullopt},
        {{State::Playing{}}, MenuBarIcon::playing, true, true, std::nullopt},
        {{State::Paused{}}, MenuBarIcon::idle, false, true, std::nullopt},
    };

    for (const Row& row : rows) {
        SCOPED_TRACE(row.state.value().index());
        EXPECT_EQ(row.state.icon(), row.icon);
        EXPECT_EQ(row.state.isPlaying(), row.isPlaying);
        EXPECT_EQ(row.state.canToggle(), row.canToggle);
        EXPECT_EQ(row.state.status(), row.status);
    }
}

TEST(PlaybackStateTests, DownloadPercentageIsTruncatedTowardZero) {
    EXPECT_EQ(downloading(0).status(), "Downloading music files — 0%");
    EXPECT_EQ(downloading(0.999).status(), "Downloading music files — 99%");
    EXPECT_EQ(downloading(1).status(), "Downloading music files — 100%");
    EXPECT_EQ(downloading(-0.005).status(), "Downloading music files — 0%");
    EXPECT_EQ(downloading(-1.5).status(), "Downloading music files — -150%");
}

TEST(PlaybackStateTests, EqualityIsByCaseAndPayload) {
    const PlaybackState states[] = {
        downloading(0.5),
        downloading(0.6),
        {State::Error{Failure::Recoverable{"m"}}},
        {State::Error{Failure::Recoverable{"n"}}},
        {State::Error{Failure::Fatal{"m"}}},
        {State::Error{Failure::Fatal{"n"}}},
        {State::Cold{}},
        {State::WarmingUp{}},
        {State::Ready{}},
        {State::Playing{}},
        {State::Paused{}},
    };
    for (const auto& one : states) {
        for (const auto& other : states) {
            const PlaybackState copy = one;
            EXPECT_EQ(copy == other, &one == &other) << &one - states << " and " << &other - states;
        }
    }
}

TEST(PlaybackStateDeathTests, AProgressThatIsNoPercentageStopsTheProcess) {
    for (const double progress : {std::nan(""), std::numeric_limits<double>::infinity(), 1e18, -1e18}) {
        EXPECT_DEATH(static_cast<void>(downloading(progress).status()), "progress is a finite number");
    }
}

TEST(MenuBarIconTests, RawValuesAreMatchedExactly) {
    EXPECT_EQ(rawValue(MenuBarIcon::idle), "idle");
    EXPECT_EQ(rawValue(MenuBarIcon::playing), "playing");
    EXPECT_EQ(rawValue(MenuBarIcon::generating), "generating");
    EXPECT_EQ(fromRawValue<MenuBarIcon>("generating"), MenuBarIcon::generating);
    EXPECT_EQ(fromRawValue<MenuBarIcon>("idle"), MenuBarIcon::idle);
    EXPECT_EQ(fromRawValue<MenuBarIcon>("playing"), MenuBarIcon::playing);
    for (const char* other : {"Generating", "", " idle", "paused"}) {
        EXPECT_EQ(fromRawValue<MenuBarIcon>(other), std::nullopt) << other;
    }
}

}  // namespace
}  // namespace quillmere
