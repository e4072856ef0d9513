#include "QuillmereKit/Moods/BlendStep.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr auto least = std::numeric_limits<std::int64_t>::min();
constexpr auto most = std::numeric_limits<std::int64_t>::max();

template <class Steps>
std::vector<std::int64_t> indices(const Steps& steps) {
    std::vector<std::int64_t> indices;
    for (const auto step : steps) indices.push_back(step.index());
    return indices;
}

TEST(AnchorTests, TheTwoEndsHaveTheirRawValuesAndLabels) {
    EXPECT_EQ(allCases<Anchor>(), (std::array{Anchor::calm, Anchor::energetic}));
    EXPECT_EQ(rawValue(Anchor::calm), "calm");
    EXPECT_EQ(rawValue(Anchor::energetic), "energetic");
    EXPECT_EQ(label(Anchor::calm), "Calm");
    EXPECT_EQ(label(Anchor::energetic), "Energetic");
}

TEST(AnchorTests, IsWrittenAndReadAsItsRawValueAndNothingElse) {
    for (const auto anchor : allCases<Anchor>()) {
        const auto text = encodeJSON(anchor, JSONWriter::Form::compact);
        EXPECT_EQ(text, '"' + std::string(rawValue(anchor)) + '"');
        EXPECT_EQ(decodeJSON<Anchor>(text), anchor);
    }
    for (const char* text : {R"("Calm")", R"("")", R"("middle")", "0", "null"}) {
        EXPECT_THROW((void)decodeJSON<Anchor>(text), JSONError) << text;
    }
}

TEST(BlendStepTests, AllAndStopsListTheFineAndTheCoarseSteps) {
    EXPECT_EQ(BlendStep::count, 5);
    EXPECT_EQ(indices(BlendStep::all()), (std::vector<std::int64_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(indices(BlendStep::stops()), (std::vector<std::int64_t>{0, 1, 4}));
    EXPECT_EQ(BlendStep::calm.index(), 0);
    EXPECT_EQ(BlendStep::energetic.index(), 4);
}

TEST(BlendStepTests, TheCoarseStopsAreCalmBalancedAndEnergetic) {
    std::vector<std::string> labels;
    for (const auto stop : BlendStep::stops()) labels.emplace_back(stop.label());
    EXPECT_EQ(labels, (std::vector<std::string>{"Calm", "Balanced", "Energetic"}));
}

TEST(BlendStepTests, AnyIndexIsClampedToTheAxis) {
    EXPECT_EQ(BlendStep(-3).index(), 0);
    EXPECT_EQ(BlendStep(9).index(), 4);
    EXPECT_EQ(BlendStep(least).index(), 0);
    EXPECT_EQ(BlendStep(most).index(), 4);
}

TEST(BlendStepTests, EachStepKnowsItsWeightPositionLabelAndAnchor) {
    struct Row {
        std::int64_t index;
        double weight;
        double position;
        const char* label;
        Anchor anchor;
        bool isAnchor;
    };
    for (const auto& row :
         {Row{0, 0.0, 0.0, "Calm", Anchor::calm, true}, Row{1, 0.25, 0.5, "Balanced", Anchor::calm, false},
          Row{2, 0.5, 0.5, "Balanced", Anchor::energetic, false},
          Row{3, 0.75, 1.0, "Energetic", Anchor::energetic, false},
          Row{4, 1.0, 1.0, "Energetic", Anchor::energetic, true}}) {
        SCOPED_TRACE(row.index);
        const BlendStep step(row.index);
        EXPECT_EQ(step.weight(), row.weight);
        EXPECT_EQ(step.position(), row.position);
        EXPECT_EQ(step.label(), row.label);
        EXPECT_EQ(step.anchor(), row.anchor);
        EXPECT_EQ(step.isAnchor(), row.isAnchor);
    }
}

TEST(BlendStepTests, APositionTakesTheNearestStopHalvesAwayFromZero) {
    struct Row {
        double position;
        std::int64_t index;
    };
    for (const auto& row : {Row{0.0, 0}, Row{0.24, 0}, Row{0.25, 1}, Row{0.5, 1}, Row{0.74, 1}, Row{0.75, 4},
                            Row{1.0, 4}, Row{-5, 0}, Row{7, 4}, Row{-0.25, 0}, Row{4.6e18, 4}, Row{-4.6e18, 0},
                            Row{std::nextafter(0x1p62, 0), 4}, Row{-0x1p62, 0}}) {
        SCOPED_TRACE(row.position);
        EXPECT_EQ(BlendStep::atPosition(row.position).index(), row.index);
    }
}

TEST(BlendStepDeathTests, APositionThatIsNoNumberInRangeStopsTheProcess) {
    for (const double position : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(), 0x1p62, std::nextafter(-0x1p62, -1e300),
                                  0x1p63, -0x1.8p63, 1e308}) {
        SCOPED_TRACE(position);
        EXPECT_DEATH((void)BlendStep::atPosition(position), "a blend position must be a finite number in range");
    }
}

TEST(BlendStepTests, ProximityListsTheNearestFirstAndOfTwoTheLower) {
    EXPECT_EQ(indices(BlendStep(0).byProximity()), (std::vector<std::int64_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(indices(BlendStep(1).byProximity()), (std::vector<std::int64_t>{1, 0, 2, 3, 4}));
    EXPECT_EQ(indices(BlendStep(2).byProximity()), (std::vector<std::int64_t>{2, 1, 3, 0, 4}));
    EXPECT_EQ(indices(BlendStep(3).byProximity()), (std::vector<std::int64_t>{3, 2, 4, 1, 0}));
    EXPECT_EQ(indices(BlendStep(4).byProximity()), (std::vector<std::int64_t>{4, 3, 2, 1, 0}));
}

TEST(BlendStepTests, StepsAreOrderedByIndex) {
    EXPECT_LT(BlendStep(1), BlendStep(2));
    EXPECT_GE(BlendStep(2), BlendStep(2));
    EXPECT_EQ(BlendStep(7), BlendStep::energetic);
    EXPECT_EQ(std::hash<BlendStep>{}(BlendStep(3)), std::hash<BlendStep>{}(BlendStep(3)));
}

TEST(BlendStepTests, ReadingKeepsTheIndexAsItStands) {
    EXPECT_EQ(decodeJSON<BlendStep>(R"({"index":7})").index(), 7);
    EXPECT_EQ(decodeJSON<BlendStep>(R"({"index":-1})").index(), -1);
    EXPECT_EQ(decodeJSON<BlendStep>(R"({"index":7})").weight(), 1.75);
    EXPECT_EQ(encodeJSON(BlendStep::unclamped(7), JSONWriter::Form::compact), R"({"index":7})");
    EXPECT_THROW((void)decodeJSON<BlendStep>(R"({})"), JSONError);
    EXPECT_THROW((void)decodeJSON<BlendStep>(R"({"index":"1"})"), JSONError);
    EXPECT_THROW((void)decodeJSON<BlendStep>("1"), JSONError);
}

TEST(BlendStepTests, AnIndexBesideTheAxisHasItsNearestStop) {
    EXPECT_EQ(BlendStep::unclamped(-7).label(), "Calm");
    EXPECT_EQ(BlendStep::unclamped(most).label(), "Energetic");
    EXPECT_EQ(indices(BlendStep::unclamped(7).byProximity()), (std::vector<std::int64_t>{4, 3, 2, 1, 0}));
    EXPECT_EQ(indices(BlendStep::unclamped(least + 5).byProximity()), (std::vector<std::int64_t>{0, 1, 2, 3, 4}));
    EXPECT_FALSE(BlendStep::unclamped(7).isAnchor());
    EXPECT_EQ(BlendStep::unclamped(least).anchor(), Anchor::calm);
}

TEST(BlendStepDeathTests, ADistanceThatOverflowsStopsTheProcess) {
    EXPECT_DEATH((void)BlendStep::unclamped(least).label(), "too far off");
    EXPECT_DEATH((void)BlendStep::unclamped(least + 4).byProximity(), "too far off");
}

}  // namespace
}  // namespace quillmere
