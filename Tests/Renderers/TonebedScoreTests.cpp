#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "Renderers/Tonebed/Harmony.hpp"
#include "Renderers/Tonebed/Score.hpp"
#include "Tests/Renderers/TonebedPieces.hpp"

namespace quillmere::tonebed {
namespace {

using test::pieceOf;
using test::playableMoods;

bool hasVoice(const Score& score, Voice voice) { return std::ranges::count(score.notes, voice, &Note::voice) > 0; }

TEST(TonebedScoreTests, AKeyCountsItsStepsInBothDirections) {
    const Key key{2, Scale::dorian};

    EXPECT_EQ(key.pitch(0), 50);
    EXPECT_EQ(key.pitch(2), 53);
    EXPECT_EQ(key.pitch(6), 60);
    EXPECT_EQ(key.pitch(7), 62);
    EXPECT_EQ(key.pitch(-1), 48);
    EXPECT_EQ(key.pitch(-7), 38);
    EXPECT_EQ(key.pitch(-8), 36);
}

TEST(TonebedScoreTests, VoicesRiseStayInTheirRegisterAndMoveLittleRoundTheLoop) {
    for (const Scale scale : {Scale::ionian, Scale::dorian, Scale::lydian, Scale::mixolydian, Scale::aeolian}) {
        for (std::uint64_t seed = 0; seed < 60; ++seed) {
            const Key key{static_cast<int>(seed % 12), scale};
            const std::size_t count = 2 + seed % 31;
            const auto chords = progression(key, count, Random(seed));
            ASSERT_EQ(chords.size(), count);
            double moved = 0;
            for (std::size_t i = 0; i < count; ++i) {
                const auto& voicing = chords[i].voicing;
                EXPECT_TRUE(std::ranges::is_sorted(voicing));
                EXPECT_GE(voicing.front(), 40);
                EXPECT_LE(voicing.back(), 79);
                EXPECT_GE(chords[i].bass, 31);
                EXPECT_LE(chords[i].bass, 43);
                for (const int pitch : voicing) {
                    EXPECT_TRUE(std::ranges::count(chords[i].classes, pitch % 12) == 1);
                    EXPECT_EQ(chords[i].nearestTone(pitch), pitch);
                }
                const auto& next = chords[(i + 1) % count].voicing;
                for (std::size_t voice = 0; voice < 4; ++voice) moved += std::abs(next[voice] - voicing[voice]);
            }
            EXPECT_LT(moved / (4.0 * static_cast<double>(count)), 3.0) << "semitones a voice and chord, seed " << seed;
        }
    }
}

TEST(TonebedScoreTests, APieceIsWholeBarsAndItsNotesBeginInsideIt) {
    for (const auto& mood : playableMoods()) {
        for (const double seconds : {0.1, 0.5, 1.0, 2.5, 7.3, 30.0, 119.99, 120.0}) {
            SCOPED_TRACE(mood.id + " " + std::to_string(seconds));
            const auto piece = pieceOf(mood, 3, 5, seconds);
            const Score score = scoreOf(piece);

            EXPECT_EQ(score.frames, piece.frames);
            EXPECT_GE(score.bars, 1);
            EXPECT_NEAR(static_cast<double>(score.beats()) * 60 / score.tempo, seconds, 1e-3);
            EXPECT_FALSE(score.notes.empty());
            EXPECT_TRUE(std::ranges::is_sorted(score.notes, {}, &Note::start));
            for (const Note& note : score.notes) {
                EXPECT_GE(note.start, 0);
                EXPECT_LT(note.start, score.frames);
                EXPECT_GT(note.length, 0);
                EXPECT_GT(note.velocity, 0);
                EXPECT_LE(note.velocity, 1.0);
                EXPECT_LE(std::abs(note.pan), 1.0);
            }
        }
    }
}

TEST(TonebedScoreTests, TheTempoBendsOnlyALittleToFitWholeBars) {
    for (const int tempo : {30, 54, 60, 70, 87, 99, 120, 143, 200, 300}) {
        for (const double seconds : {20.0, 31.7, 60.0, 95.5, 120.0}) {
            const Score score = scoreOf(pieceOf("pads, BPM: " + std::to_string(tempo), 1, seconds));
            const double bend = std::abs(score.tempo / tempo - 1);
            // At worst half a bar must go, or come in.
            EXPECT_LE(bend, std::max(0.09, 0.6 / (seconds * tempo / 240))) << tempo << " for " << seconds;
        }
    }
    EXPECT_NEAR(scoreOf(pieceOf("pads, BPM: 70", 1, 120)).tempo, 70, 3);
}

TEST(TonebedScoreTests, AWaltzHasThreeBeatsInABar) {
    EXPECT_EQ(scoreOf(pieceOf("piano waltz", 1, 60)).beatsPerBar, 3);
    EXPECT_EQ(scoreOf(pieceOf("piano", 1, 60)).beatsPerBar, 4);
}

TEST(TonebedScoreTests, EveryInstrumentThatIsAskedForPlays) {
    const std::pair<const char*, Voice> rows[] = {
        {"pads", Voice::pad},           {"soft electronic pulse", Voice::pulse},
        {"arpeggio", Voice::arpeggio},  {"piano", Voice::piano},
        {"strings", Voice::strings},    {"electric piano", Voice::electricPiano},
        {"airy", Voice::choir},         {"bass", Voice::bass},
        {"bells", Voice::bell},         {"marimba", Voice::mallet},
        {"guitar", Voice::pluck},       {"flute", Voice::flute},
        {"driving drums", Voice::kick}, {"driving drums", Voice::snare},
        {"drums", Voice::hat},          {"brushed drums", Voice::brush},
        {"brushes", Voice::sweep},      {"brushed drums", Voice::shaker},
        {"rain", Voice::droplet},       {"vinyl crackle", Voice::tick},
        {"birdsong", Voice::chirp},     {"calm drums", Voice::rim},
    };
    for (const auto& [prompt, voice] : rows) {
        EXPECT_TRUE(hasVoice(scoreOf(pieceOf(prompt, 1, 60)), voice)) << prompt;
    }
}

TEST(TonebedScoreTests, WhatIsNotAskedForDoesNotPlay) {
    const Score score = scoreOf(pieceOf("warm pads", 1, 60));

    for (const Voice voice : {Voice::kick, Voice::snare, Voice::hat, Voice::brush, Voice::arpeggio, Voice::pulse,
                              Voice::piano, Voice::strings, Voice::pluck, Voice::droplet, Voice::tick, Voice::chirp}) {
        EXPECT_FALSE(hasVoice(score, voice)) << static_cast<int>(voice);
    }
}

// Onset density: beginnings of notes in a second, as the score has them; of a chord only its first note counts, and
// rain drops, crackles and bird calls do not.
TEST(TonebedScoreTests, OnsetDensityRisesOverAllFiveStepsOfEveryMoodAndSeed) {
    for (const auto& mood : playableMoods()) {
        for (const double seconds : {30.0, 120.0}) {
            for (std::int64_t seed = 0; seed < 25; ++seed) {
                double before = 0;
                for (int blend = 0; blend < 5; ++blend) {
                    const double density = scoreOf(pieceOf(mood, blend, seed, seconds)).onsetDensity();
                    EXPECT_GT(density, before) << mood.id << " seed " << seed << " step " << blend;
                    before = density;
                }
            }
        }
    }
}

// Two scores are compared by what is heard of them: which pitch class begins in which sixteenth of the loop's beats.
double likeness(const Score& a, const Score& b) {
    const auto heard = [](const Score& score) {
        std::set<std::pair<int, std::int64_t>> events;
        for (const Note& note : score.notes) {
            if (note.voice > Voice::glow) continue;
            const double place = static_cast<double>(note.start) / score.framesPerBeat() * 4;
            events.emplace(static_cast<int>(note.pitch) % 12, static_cast<std::int64_t>(std::floor(place + 0.5)));
        }
        return events;
    };
    const auto first = heard(a);
    const auto second = heard(b);
    std::size_t shared = 0;
    for (const auto& event : first) shared += second.count(event);
    return static_cast<double>(shared) / static_cast<double>(first.size() + second.size() - shared);
}

TEST(TonebedScoreTests, DifferentSeedsPlayDifferentNotesInDifferentKeysAndChords) {
    for (const auto& mood : playableMoods()) {
        std::set<std::pair<int, Scale>> keys;
        std::set<std::vector<int>> progressions;
        constexpr int seeds = 16;
        double sum = 0;
        int pairs = 0;
        std::vector<Score> scores;
        for (int seed = 0; seed < seeds; ++seed) {
            scores.push_back(scoreOf(pieceOf(mood, 2, seed, 60)));
            keys.emplace(scores.back().key.root, scores.back().key.scale);
            std::vector<int> degrees;
            for (const Chord& chord : scores.back().chords) degrees.push_back(chord.degree);
            progressions.insert(degrees);
        }
        for (std::size_t i = 0; i < scores.size(); ++i) {
            for (std::size_t j = i + 1; j < scores.size(); ++j) {
                const double likely = likeness(scores[i], scores[j]);
                EXPECT_LT(likely, 0.55) << mood.id << " seeds " << i << " and " << j;
                sum += likely;
                ++pairs;
            }
        }
        EXPECT_LT(sum / pairs, 0.25) << mood.id;
        EXPECT_GE(keys.size(), 8U) << mood.id;
        EXPECT_GE(progressions.size(), 8U) << mood.id;
    }
}

TEST(TonebedScoreTests, ADarkTextIsWrittenInAMinorKeyAndALightOneInAMajor) {
    int minor = 0;
    int major = 0;
    for (int seed = 0; seed < 40; ++seed) {
        const Scale dark = scoreOf(pieceOf("sad melancholic piano", seed, 30)).key.scale;
        const Scale light = scoreOf(pieceOf("happy hopeful piano", seed, 30)).key.scale;
        minor += dark == Scale::aeolian || dark == Scale::dorian ? 1 : 0;
        major += light == Scale::ionian || light == Scale::lydian || light == Scale::mixolydian ? 1 : 0;
    }
    EXPECT_GE(minor, 38);
    EXPECT_GE(major, 38);
    EXPECT_EQ(scoreOf(pieceOf("piano in E minor", 3, 30)).key, (Key{4, Scale::aeolian}));
}

TEST(TonebedScoreTests, TheSamePieceIsWrittenTheSameEachTime) {
    const auto piece = pieceOf("arpeggio, drums, rain, birds, piano", 99, 45);

    EXPECT_EQ(scoreOf(piece).notes, scoreOf(piece).notes);
}

TEST(TonebedScoreTests, ExtremeSeedsAreSeedsLikeOthers) {
    for (const std::int64_t seed : {INT64_MIN, std::int64_t{-1}, std::int64_t{0}, INT64_MAX}) {
        EXPECT_FALSE(scoreOf(pieceOf("pads", seed, 30)).notes.empty()) << seed;
    }
    EXPECT_NE(scoreOf(pieceOf("pads", INT64_MIN, 30)).notes, scoreOf(pieceOf("pads", INT64_MAX, 30)).notes);
}

}  // namespace
}  // namespace quillmere::tonebed
