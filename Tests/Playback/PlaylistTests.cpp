#include "QuillmereKit/Playback/Playlist.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <numeric>

namespace quillmere {
namespace {

LoopArtifact segment(std::int64_t seed, double seconds = 120) {
    return {.identity = {.moodID = "focus",
                         .calmPrompt = "calm",
                         .energeticPrompt = "energetic",
                         .seed = seed,
                         .model = "sa3_medium_mlx_v2"},
            .url = FileURL::fromPath("/loops/" + std::to_string(seed) + ".wav"),
            .seconds = seconds};
}

std::vector<LoopArtifact> segments(std::int64_t count) {
    std::vector<LoopArtifact> made;
    for (std::int64_t i = 0; i < count; ++i) made.push_back(segment(i));
    return made;
}

std::vector<std::int64_t> plays(Playlist& playlist, int steps) {
    std::vector<std::int64_t> seeds;
    for (int i = 0; i < steps; ++i) seeds.push_back(playlist.advance()->identity.seed);
    return seeds;
}

TEST(PlaylistTests, SeedZeroBehavesLikeTheGoldenRatioSeed) {
    Playlist zero(segments(7), 0);
    Playlist golden(segments(7), 0x9e3779b97f4a7c15);

    EXPECT_EQ(zero, golden);
    EXPECT_EQ(plays(zero, 70), plays(golden, 70));
}

TEST(PlaylistTests, FirstRoundPlaysInTheGivenOrder) {
    Playlist playlist(segments(5), 42);

    EXPECT_EQ(playlist.current()->identity.seed, 0);
    EXPECT_EQ(playlist.upcoming()->identity.seed, 1);
    EXPECT_EQ(plays(playlist, 4), (std::vector<std::int64_t>{1, 2, 3, 4}));
    EXPECT_EQ(playlist.rounds(), 0);
}

TEST(PlaylistTests, OneSegmentIsPlayedAgainAndAgain) {
    Playlist playlist(segments(1), 42);

    for (std::int64_t round = 1; round <= 3; ++round) {
        EXPECT_EQ(playlist.advance()->identity.seed, 0);
        EXPECT_EQ(playlist.rounds(), round);
        EXPECT_EQ(playlist.upcoming(), nullptr);
    }
}

TEST(PlaylistTests, TwoSegmentsAlternateAndDrawNothing) {
    Playlist playlist(segments(2), 42);

    EXPECT_EQ(plays(playlist, 5), (std::vector<std::int64_t>{1, 0, 1, 0, 1}));
    EXPECT_EQ(playlist.upcoming()->identity.seed, 0);
    EXPECT_EQ(playlist.rng().state, 42U);
}

TEST(PlaylistTests, NoSegmentIsPlayedTwiceInARowAndEachOnceARound) {
    for (std::int64_t count = 3; count <= 9; ++count) {
        for (std::uint64_t seed = 1; seed <= 50; ++seed) {
            Playlist playlist(segments(count), seed);
            std::int64_t last = playlist.current()->identity.seed;
            for (std::int64_t step = 1; step < count; ++step) last = playlist.advance()->identity.seed;
            for (int round = 0; round < 5; ++round) {
                std::map<std::int64_t, int> played;
                for (std::int64_t step = 0; step < count; ++step) {
                    const std::int64_t now = playlist.advance()->identity.seed;
                    ASSERT_NE(now, last) << "count " << count << ", seed " << seed;
                    ++played[now];
                    last = now;
                }
                ASSERT_EQ(played.size(), static_cast<std::size_t>(count));
            }
        }
    }
}

TEST(PlaylistTests, AppendedSegmentPlaysAtTheEndOfTheRound) {
    Playlist playlist(segments(3), 42);
    playlist.advance();

    playlist.append(segment(3));

    EXPECT_EQ(playlist.order(), (std::vector<std::size_t>{0, 1, 2, 3}));
    EXPECT_EQ(plays(playlist, 2), (std::vector<std::int64_t>{2, 3}));
}

TEST(PlaylistTests, AppendingAFingerprintHeldChangesNothing) {
    Playlist playlist(segments(3), 42);
    const Playlist before = playlist;
    LoopArtifact elsewhere = segment(1, 60);
    elsewhere.url = FileURL::fromPath("/elsewhere.wav");

    playlist.append(elsewhere);

    EXPECT_EQ(playlist, before);
}

TEST(PlaylistTests, FirstPieceAppendedToAnEmptyPlaylistIsTheCurrentOne) {
    Playlist playlist({}, 42);

    playlist.append(segment(1));

    ASSERT_NE(playlist.current(), nullptr);
    EXPECT_EQ(playlist.current()->identity.seed, 1);
    EXPECT_EQ(playlist.cursor(), 0U);
    EXPECT_EQ(playlist.upcoming(), nullptr);
}

TEST(PlaylistTests, PieceAppendedWhileTheLastOneOfARoundPlaysStillPlaysInThatRound) {
    Playlist playlist(segments(3), 42);
    plays(playlist, 2);

    playlist.append(segment(3));

    EXPECT_EQ(playlist.upcoming()->identity.seed, 3);
    EXPECT_EQ(playlist.advance()->identity.seed, 3);
    EXPECT_EQ(playlist.rounds(), 0);
    EXPECT_NE(playlist.advance()->identity.seed, 3);
    EXPECT_EQ(playlist.rounds(), 1);
}

TEST(PlaylistTests, PiecesGivenTwiceAreKept) {
    Playlist playlist({segment(1), segment(1)}, 42);

    EXPECT_EQ(playlist.count(), 2U);
    EXPECT_EQ(playlist.order(), (std::vector<std::size_t>{0, 1}));
}

TEST(PlaylistTests, EveryPartOfTheStateCountsInEquality) {
    const Playlist playlist(segments(2), 42);
    Playlist advanced = playlist;
    Playlist aRoundLater = playlist;
    advanced.advance();
    plays(aRoundLater, 2);

    EXPECT_NE(playlist, Playlist(segments(3), 42)) << "segments";
    EXPECT_NE(playlist, Playlist(segments(2), 43)) << "generator";
    EXPECT_NE(playlist, advanced) << "cursor";
    EXPECT_EQ(playlist.cursor(), aRoundLater.cursor());
    EXPECT_NE(playlist, aRoundLater) << "rounds";
}

TEST(PlaylistTests, EmptyPlaylistHasNothing) {
    Playlist playlist({}, 42);

    EXPECT_TRUE(playlist.isEmpty());
    EXPECT_EQ(playlist.count(), 0U);
    EXPECT_EQ(playlist.current(), nullptr);
    EXPECT_EQ(playlist.upcoming(), nullptr);
    EXPECT_EQ(playlist.advance(), nullptr);
    EXPECT_EQ(playlist.rounds(), 0);
    EXPECT_EQ(playlist.totalSeconds(), 0);
}

TEST(PlaylistTests, TotalSecondsIsTheSumOfAll) {
    EXPECT_EQ(Playlist({segment(1, 30), segment(2, 12.5)}, 1).totalSeconds(), 42.5);
}

TEST(PlaylistTests, SameSegmentsAndSeedGiveTheSameRounds) {
    Playlist a(segments(6), 7);
    Playlist b(segments(6), 7);
    Playlist other(segments(6), 8);

    const auto rounds = plays(a, 60);

    EXPECT_EQ(rounds, plays(b, 60));
    EXPECT_EQ(a, b);
    EXPECT_NE(rounds, plays(other, 60));
}

TEST(PlaylistTests, UpcomingAtTheEndOfARoundNamesTheFirstOfThePresentOne) {
    Playlist playlist(segments(4), 3);
    plays(playlist, 3);

    EXPECT_EQ(playlist.upcoming()->identity.seed, 0);
}

TEST(SeededGeneratorTests, BoundedDrawsStayBelowTheBoundAndReachEveryValue) {
    SeededGenerator generator{5};
    for (const std::uint64_t bound : std::initializer_list<std::uint64_t>{1, 2, 3, 10}) {
        std::vector<int> counts(bound);
        for (int i = 0; i < 4000; ++i) ++counts.at(generator.below(bound));
        for (const int count : counts) EXPECT_NEAR(count, 4000.0 / static_cast<double>(bound), 200);
    }
}

TEST(SeededGeneratorTests, BoundedDrawIsTheHighHalfOfTheProduct) {
    __extension__ using Wide = unsigned __int128;
    SeededGenerator raw{99};
    SeededGenerator bounded{99};

    for (std::uint64_t bound = 1; bound < 2000; bound += 7) {
        const auto product = static_cast<Wide>(raw.next()) * bound;
        EXPECT_EQ(bounded.below(bound), static_cast<std::uint64_t>(product >> 64));
    }
}

TEST(SeededGeneratorTests, RejectsDrawsThatWouldFavourSomeValues) {
    // With a bound of 2^63 + 1 nearly half of all draws fall into the rejected range.
    constexpr std::uint64_t bound = (std::uint64_t{1} << 63) + 1;
    __extension__ using Wide = unsigned __int128;
    const std::uint64_t threshold = (0 - bound) % bound;
    SeededGenerator raw{1};
    SeededGenerator bounded{1};
    int rejected = 0;

    for (int i = 0; i < 100; ++i) {
        auto product = static_cast<Wide>(raw.next()) * bound;
        while (static_cast<std::uint64_t>(product) < threshold) {
            product = static_cast<Wide>(raw.next()) * bound;
            ++rejected;
        }
        EXPECT_EQ(bounded.below(bound), static_cast<std::uint64_t>(product >> 64));
    }

    EXPECT_GT(rejected, 20);
}

TEST(SeededGeneratorDeathTests, ABoundOfZeroStopsTheProcess) {
    SeededGenerator generator;
    EXPECT_DEATH(static_cast<void>(generator.below(0)), "bound of at least 1");
}

}  // namespace
}  // namespace quillmere
