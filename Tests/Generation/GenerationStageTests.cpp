#include "QuillmereKit/Generation/GenerationStage.hpp"

#include <gtest/gtest.h>

#include <iterator>
#include <limits>
#include <random>
#include <string>

namespace quillmere {
namespace {

using Activity = GenerationActivity;
using Stage = GenerationStage;

TEST(GenerationStageTests, EachCaseHasItsLabel) {
    const Activity waits = Activity::Waiting{5};
    const Activity loads = Activity::Loading{};
    const Activity runs = Activity::Running{};

    EXPECT_EQ(Stage(Stage::Sampling{3, 50}).label(), "Creating music · 3 of 50");
    EXPECT_EQ(Stage(Stage::EncodingBlock{1, 4, runs}).label(), "Getting ready");
    EXPECT_EQ(Stage(Stage::EncodingBlock{1, 4, loads}).label(), "Getting ready");
    EXPECT_EQ(Stage(Stage::EncodingBlock{1, 4, waits}).label(), "Getting ready · taking a short break");
    EXPECT_EQ(Stage(Stage::SamplingBlock{3, 50, 2, 8, runs}).label(), "Creating music · 3 of 50");
    EXPECT_EQ(Stage(Stage::SamplingBlock{3, 50, 2, 8, loads}).label(), "Creating music · 3 of 50");
    EXPECT_EQ(Stage(Stage::SamplingBlock{3, 50, 2, 8, waits}).label(),
              "Creating music · 3 of 50 · taking a short break");
    EXPECT_EQ(Stage(Stage::DecodingBlock{2, 3, 1, 1, runs}).label(), "Finishing the track");
    EXPECT_EQ(Stage(Stage::DecodingBlock{2, 3, 1, 1, loads}).label(), "Finishing the track");
    EXPECT_EQ(Stage(Stage::DecodingBlock{2, 3, 1, 1, waits}).label(), "Finishing the track · taking a short break");
    EXPECT_EQ(Stage(Stage::Preparing{}).label(), "Getting ready");
    EXPECT_EQ(Stage(Stage::Encoding{}).label(), "Getting ready");
    EXPECT_EQ(Stage(Stage::Decoding{}).label(), "Finishing the track");
    EXPECT_EQ(Stage(Stage::Processing{}).label(), "Checking and saving");
}

TEST(GenerationStageTests, EqualityIsByCaseAndPayload) {
    const Stage stage = Stage::SamplingBlock{3, 50, 2, 8, Activity::Running{}};

    EXPECT_EQ(stage, Stage(Stage::SamplingBlock{3, 50, 2, 8, Activity::Running{}}));
    EXPECT_NE(stage, Stage(Stage::SamplingBlock{4, 50, 2, 8, Activity::Running{}}));
    EXPECT_NE(stage, Stage(Stage::SamplingBlock{3, 51, 2, 8, Activity::Running{}}));
    EXPECT_NE(stage, Stage(Stage::SamplingBlock{3, 50, 1, 8, Activity::Running{}}));
    EXPECT_NE(stage, Stage(Stage::SamplingBlock{3, 50, 2, 9, Activity::Running{}}));
    EXPECT_NE(stage, Stage(Stage::SamplingBlock{3, 50, 2, 8, Activity::Loading{}}));
    EXPECT_NE(stage, Stage(Stage::DecodingBlock{3, 50, 2, 8, Activity::Running{}}));
    EXPECT_NE(Stage(Stage::Encoding{}), Stage(Stage::Decoding{}));
}

TEST(GenerationStageTests, EngineLinesGiveTheirStages) {
    EXPECT_EQ(Stage::fromEngineLine("text encoder"), Stage(Stage::Encoding{}));
    EXPECT_EQ(Stage::fromEngineLine("audio encoder"), Stage(Stage::Encoding{}));
    EXPECT_EQ(Stage::fromEngineLine("decoder"), Stage(Stage::Decoding{}));
    EXPECT_EQ(Stage::fromEngineLine("sample 7/7"), Stage(Stage::Sampling{7, 7}));
    EXPECT_EQ(Stage::fromEngineLine("progress sampling 3/50 2/8 running"),
              Stage(Stage::SamplingBlock{3, 50, 2, 8, Activity::Running{}}));
    EXPECT_EQ(Stage::fromEngineLine("progress encoding 1/4 waiting 5"),
              Stage(Stage::EncodingBlock{1, 4, Activity::Waiting{5}}));
    EXPECT_EQ(Stage::fromEngineLine("progress encoding 1/4 loading"),
              Stage(Stage::EncodingBlock{1, 4, Activity::Loading{}}));
    EXPECT_EQ(Stage::fromEngineLine("progress decoding 2/3 1/1 waiting 5"),
              Stage(Stage::DecodingBlock{2, 3, 1, 1, Activity::Waiting{5}}));
}

TEST(GenerationStageTests, SpacesOfAProgressLineCountOnceAndMayTrail) {
    EXPECT_EQ(Stage::fromEngineLine("progress   decoding  2/3   1/1 waiting    1  "),
              Stage(Stage::DecodingBlock{2, 3, 1, 1, Activity::Waiting{1}}));
}

TEST(GenerationStageTests, NumbersMayHaveLeadingZeros) {
    EXPECT_EQ(Stage::fromEngineLine("sample 003/0050"), Stage(Stage::Sampling{3, 50}));
    EXPECT_EQ(Stage::fromEngineLine("progress encoding 01/4 waiting 05"),
              Stage(Stage::EncodingBlock{1, 4, Activity::Waiting{5}}));
    EXPECT_EQ(Stage::fromEngineLine("sample 00/0050"), std::nullopt);
}

TEST(GenerationStageTests, NumbersReachTheLimitsOfSixtyFourBits) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(Stage::fromEngineLine("sample 1/9223372036854775807"), Stage(Stage::Sampling{1, most}));
    EXPECT_EQ(Stage::fromEngineLine("sample 9223372036854775807/9223372036854775807"),
              Stage(Stage::Sampling{most, most}));
    EXPECT_EQ(Stage::fromEngineLine("sample 1/9223372036854775808"), std::nullopt);
}

TEST(GenerationStageTests, BreaksOfOneToFiveSecondsAreBelieved) {
    for (std::int64_t seconds = -1; seconds <= 7; ++seconds) {
        SCOPED_TRACE(seconds);
        const auto stage = Stage::fromEngineLine("progress encoding 1/4 waiting " + std::to_string(seconds));
        EXPECT_EQ(stage.has_value(), seconds >= 1 && seconds <= 5);
    }
}

TEST(GenerationStageTests, OtherLinesGiveNothing) {
    const std::string_view lines[] = {
        "",
        " ",
        "sample 0/10",
        "sample 11/10",
        "sample 3/",
        "sample /3",
        "sample 3",
        "sample 3/4/5",
        "sample 3//4",
        "sample +3/4",
        "sample 3/0",
        "sample 3/99999999999999999999",
        "Sample 3/4",
        "sample\t3/4",
        "text encoder\r",
        " text encoder",
        "Text encoder",
        "text  encoder",
        "decoder ",
        "progress",
        "progress ",
        "progress  ",
        "Progress sampling 3/50 2/8 running",
        "progress Sampling 3/50 2/8 running",
        "progress mixing 1/2 running",
        "progress encoding",
        "progress encoding 1/4",
        "progress encoding running",
        "progress encoding 1/4 Running",
        "progress encoding 1/4 running extra",
        "progress encoding 1/4 loading extra",
        "progress encoding 1/4 1/4 running",
        "progress encoding 1/4 waiting",
        "progress encoding 1/4 waiting x",
        "progress encoding 1/4 waiting 3 s",
        "progress encoding 5/4 running",
        "progress sampling 3/50 running",
        "progress sampling 3/50 2/8",
        "progress sampling 3/50 9/8 running",
        "progress sampling 51/50 2/8 running",
        "progress sampling 3/50 2/8 running extra",
        "progress decoding 2/3 1/1 waiting 6",
        "progress decoding 2/3 1/1 waiting 0",
        "progress decoding 2/3 waiting 5",
        "progress\tdecoding 2/3 1/1 running",
        std::string_view("decoder\0", 8),
    };
    for (const auto line : lines) {
        SCOPED_TRACE(line);
        EXPECT_EQ(Stage::fromEngineLine(line), std::nullopt);
    }
}

// Any line may come from a child process. What is read must be in its bounds and say again what the line said.
TEST(GenerationStageTests, RandomLinesAreReadOnlyAsWhatTheySay) {
    std::mt19937 random(4);  // NOLINT: the same lines in each run
    const std::string_view phases[] = {"sampling", "encoding", "decoding", "mixing", "\xff", ""};
    const std::string_view words[] = {"1/2",     "3/3",     "7/9",     "2/1", "0/1", "/",
                                      "running", "loading", "waiting", "5",   "6"};
    std::size_t read = 0;
    for (int i = 0; i < 100'000; ++i) {
        std::string line = "progress " + std::string(phases[random() % std::size(phases)]);
        for (auto count = random() % 5; count > 0; --count) {
            line += ' ';
            line += words[random() % std::size(words)];
        }
        const auto stage = Stage::fromEngineLine(line);
        if (!stage) continue;

        ++read;
        SCOPED_TRACE(line);
        const auto fraction = [](std::int64_t part, std::int64_t whole) {
            EXPECT_TRUE(0 < part && part <= whole);
            return " " + std::to_string(part) + "/" + std::to_string(whole);
        };
        const auto doing = [](const Activity& activity) -> std::string {
            if (const auto* waiting = std::get_if<Activity::Waiting>(&activity.value())) {
                return " waiting " + std::to_string(waiting->seconds);
            }
            return std::holds_alternative<Activity::Loading>(activity.value()) ? " loading" : " running";
        };
        if (const auto* encoding = std::get_if<Stage::EncodingBlock>(&stage->value())) {
            EXPECT_EQ(line,
                      "progress encoding" + fraction(encoding->block, encoding->total) + doing(encoding->activity));
        } else if (const auto* sampling = std::get_if<Stage::SamplingBlock>(&stage->value())) {
            EXPECT_EQ(line, "progress sampling" + fraction(sampling->step, sampling->total) +
                                fraction(sampling->block, sampling->blocks) + doing(sampling->activity));
        } else if (const auto* decoding = std::get_if<Stage::DecodingBlock>(&stage->value())) {
            EXPECT_EQ(line, "progress decoding" + fraction(decoding->window, decoding->windows) +
                                fraction(decoding->block, decoding->blocks) + doing(decoding->activity));
        } else {
            ADD_FAILURE() << "a stage that no progress line gives";
        }
    }
    EXPECT_GT(read, 100u);
}

}  // namespace
}  // namespace quillmere
