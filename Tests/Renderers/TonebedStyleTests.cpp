#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "Renderers/Tonebed/Style.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"
#include "Renderers/Tonebed/Vocabulary.hpp"

namespace quillmere::tonebed {
namespace {

using enum Feature;

TEST(TonebedStyleTests, EveryWordOfTheVocabularyHasTheEffectThatStandsThere) {
    const Style plain = Style::fromPrompt("");
    for (const WordEffect& row : wordEffects()) {
        SCOPED_TRACE(std::string(row.phrase));
        const Style style = Style::fromPrompt(row.phrase);
        if (static_cast<std::size_t>(row.feature) < layerCount) {
            EXPECT_GE(style[row.feature], row.amount);
        } else if (row.amount > 0) {
            EXPECT_GE(style[row.feature], std::min(1.0, plain[row.feature]));
        } else {
            EXPECT_LE(style[row.feature], std::max(-1.0, plain[row.feature]));
        }
    }
    for (const TempoWord& row : tempoWords()) {
        EXPECT_EQ(Style::fromPrompt(row.phrase).tempo, row.beatsPerMinute) << row.phrase;
    }
    for (const ScaleWord& row : scaleWords()) EXPECT_EQ(Style::fromPrompt(row.phrase).scale, row.scale) << row.phrase;
}

TEST(TonebedStyleTests, PluralsCapitalsAndPunctuationDoNotMatter) {
    for (const char* prompt : {"piano", "Piano", "PIANOS", "some (piano)", "rain;piano.", "piano,"}) {
        EXPECT_EQ(Style::fromPrompt(prompt)[piano], 1) << prompt;
    }
    EXPECT_EQ(Style::fromPrompt("pianola")[piano], 0);
    EXPECT_EQ(Style::fromPrompt("brushes")[brushes], Style::fromPrompt("brush")[brushes]);
    EXPECT_EQ(Style::fromPrompt("music boxes")[bells], Style::fromPrompt("music box")[bells]);
    EXPECT_EQ(Style::fromPrompt("pianoes")[piano], 0);
}

TEST(TonebedStyleTests, TheLongestPhraseIsMeant) {
    const Style style = Style::fromPrompt("electric piano, brushed drums");

    EXPECT_EQ(style[electricPiano], 1);
    EXPECT_EQ(style[piano], 0);
    EXPECT_EQ(style[brushes], 1);
    EXPECT_EQ(style[drums], 0);
}

TEST(TonebedStyleTests, WhatIsNotWantedIsLeftOutUpToTheNextComma) {
    const Style style = Style::fromPrompt("house beat, bass, no drums, without piano, strings");

    EXPECT_EQ(style[drums], 0);
    EXPECT_EQ(style[piano], 0);
    EXPECT_GT(style[strings], 0.5);
    EXPECT_EQ(style[bass], 1);
}

TEST(TonebedStyleTests, BeatsPerMinuteAreTakenFromTheText) {
    EXPECT_EQ(Style::fromPrompt("Tempo: slow, BPM: 70, tape hiss").tempo, 70);
    EXPECT_EQ(Style::fromPrompt("100 bpm").tempo, 100);
    EXPECT_EQ(Style::fromPrompt("ambient, 95bpm, pads").tempo, 95);
    EXPECT_EQ(Style::fromPrompt("BPM: 9999").tempo, 300);
    EXPECT_EQ(Style::fromPrompt("BPM: 1").tempo, 30);
    EXPECT_TRUE(Style::fromPrompt("BPM: 70").hasExplicitTempo);
    for (const char* prompt : {"BPM: 0", "BPM", "BPM: fast", "BPM: -", "bpm : 99999"}) {
        EXPECT_FALSE(Style::fromPrompt(prompt).hasExplicitTempo) << prompt;
    }
}

TEST(TonebedStyleTests, WordsForTheTempoOrderAsTheirMeaningDoes) {
    const auto tempo = [](const char* prompt) { return Style::fromPrompt(prompt).tempo; };

    EXPECT_LT(tempo("Tempo: very slow"), tempo("Tempo: slow"));
    EXPECT_LT(tempo("Tempo: slow"), tempo("Tempo: medium"));
    EXPECT_LT(tempo("Tempo: medium"), tempo("Tempo: fast"));
    EXPECT_LT(tempo("calm pads"), tempo("driving synth arpeggio"));
}

TEST(TonebedStyleTests, AKeyIsTakenWhereANoteNameStandsBeforeAScale) {
    EXPECT_EQ(Style::fromPrompt("in D minor").key, 2);
    EXPECT_EQ(Style::fromPrompt("in D minor").scale, Scale::aeolian);
    EXPECT_EQ(Style::fromPrompt("F# major").key, 6);
    EXPECT_EQ(Style::fromPrompt("Bb major").key, 10);
    EXPECT_EQ(Style::fromPrompt("E flat major").key, 3);
    EXPECT_EQ(Style::fromPrompt("C sharp dorian").key, 1);
    EXPECT_FALSE(Style::fromPrompt("a minor detail").key);
    EXPECT_FALSE(Style::fromPrompt("H minor").key);
    EXPECT_FALSE(Style::fromPrompt("D pads").key);
}

TEST(TonebedStyleTests, EveryStyleHasHarmonyWhateverTheTextLeavesOut) {
    for (const char* prompt : {"", "rain", "drums", "no pads", "xyzzy", "no pads, no bass, drums"}) {
        const Style style = Style::fromPrompt(prompt);
        EXPECT_GE(std::max({style[pad], style[electricPiano], style[piano], style[strings]}), 0.3) << prompt;
    }
    EXPECT_EQ(Style::fromPrompt("solo piano")[pad], 0);
}

TEST(TonebedStyleTests, AnyBytesMakeAFiniteStyleWithinItsRanges) {
    std::mt19937 random(1);
    for (int i = 0; i < 300; ++i) {
        std::string text(random() % 400, '\0');
        for (char& byte : text) byte = static_cast<char>(random() % 256);
        if (i % 3 == 0) text += " no BPM: " + std::to_string(random()) + " A# sharp";
        const Style style = Style::fromPrompt(text);
        for (const double value : style.values) {
            EXPECT_TRUE(std::isfinite(value));
            EXPECT_GE(value, -1);
            EXPECT_LE(value, 1);
        }
        EXPECT_GE(style.tempo, 30);
        EXPECT_LE(style.tempo, 300);
    }
}

TEST(TonebedStyleTests, ABlendLiesBetweenItsEndsAndRisesInEnergyAndBrightness) {
    const Style calm = Style::fromPrompt("warm pads, BPM: 60");
    const Style energetic = Style::fromPrompt("arpeggio, BPM: 120");

    Style before = Style::blended(calm, energetic, 0);
    for (const double weight : {0.25, 0.5, 0.75, 1.0}) {
        const Style style = Style::blended(calm, energetic, weight);
        EXPECT_NEAR(style.tempo, 60 + 60 * weight, 1e-9);
        EXPECT_NEAR(style[arpeggio], weight, 1e-9);
        EXPECT_GT(style[energy], before[energy]);
        EXPECT_GT(style[brightness], before[brightness]);
        before = style;
    }
}

TEST(TonebedStyleTests, EnergyAndBrightnessRiseEvenBetweenTwoLikeOrReversedEnds) {
    for (const auto& [calm, energetic] :
         {std::pair{"pads", "pads"}, std::pair{"bright driving techno", "dark drone"}}) {
        double energyBefore = -1;
        double brightnessBefore = -1;
        for (int step = 0; step < 5; ++step) {
            const Style style = Style::blended(Style::fromPrompt(calm), Style::fromPrompt(energetic), step * 0.25);
            EXPECT_GT(style[energy], energyBefore) << calm << step;
            EXPECT_GT(style[brightness], brightnessBefore) << calm << step;
            energyBefore = style[energy];
            brightnessBefore = style[brightness];
        }
    }
}

TEST(TonebedStyleTests, ACompletePromptDecidesAndTheEndsDoNot) {
    Piece piece;
    piece.prompt = "solo piano, BPM: 80";
    piece.calmPrompt = "pads";
    piece.energeticPrompt = "techno drums";
    piece.frames = 480000;
    Piece other = piece;
    other.calmPrompt = "strings in C minor";
    other.energeticPrompt = "rain";

    EXPECT_EQ(styleOf(piece), styleOf(other));
    EXPECT_EQ(scoreOf(piece).notes, scoreOf(other).notes);
    EXPECT_EQ(styleOf(piece)[Feature::piano], 1);
    EXPECT_EQ(styleOf(piece)[drums], 0);
}

TEST(TonebedStyleTests, TheBlendStepShadesACompletePromptToo) {
    Piece piece;
    piece.prompt = "piano";
    Style before;
    before[energy] = before[brightness] = -1;
    for (piece.blendIndex = 0; piece.blendIndex < 5; ++piece.blendIndex) {
        const Style style = styleOf(piece);
        EXPECT_GT(style[energy], before[energy]);
        EXPECT_GT(style[brightness], before[brightness]);
        EXPECT_EQ(style[Feature::piano], 1);
        before = style;
    }
}

TEST(TonebedStyleTests, ABlendStepBeyondTheLastCountsAsTheLast) {
    Piece piece;
    piece.calmPrompt = "pads";
    piece.energeticPrompt = "drums";
    piece.blendIndex = 4;
    Piece beyond = piece;
    beyond.blendIndex = 7;

    EXPECT_EQ(styleOf(beyond), styleOf(piece));
    beyond.blendIndex = -3;
    piece.blendIndex = 0;
    EXPECT_EQ(styleOf(beyond), styleOf(piece));
}

}  // namespace
}  // namespace quillmere::tonebed
