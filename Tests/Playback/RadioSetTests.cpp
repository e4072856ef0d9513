#include "QuillmereKit/Playback/RadioSet.hpp"

#include <gtest/gtest.h>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Playback/PickerMode.hpp"

namespace quillmere {
namespace {

using Result = RadioSet::ToggleResult;
using Moods = std::vector<std::string>;

RadioSet radio(const Moods& moods, const std::string& onAir) { return RadioSet::make(moods, onAir).value(); }

TEST(RadioSetTests, AnEmptyListGivesNoRadio) { EXPECT_EQ(RadioSet::make({}, "a"), std::nullopt); }

TEST(RadioSetTests, AMoodThatIsNotListedLeavesTheFirstOnAir) {
    EXPECT_EQ(radio({"a", "b"}, "c").onAir(), "a");
    EXPECT_EQ(RadioSet::make({"a", "b"}, std::nullopt)->onAir(), "a");
    EXPECT_EQ(radio({"a", "b"}, "b").onAir(), "b");
}

TEST(RadioSetTests, KeepsDuplicates) { EXPECT_EQ(radio({"a", "b", "a"}, "a").count(), 3U); }

TEST(RadioSetTests, TheOnlyMoodCannotBeRemoved) {
    RadioSet set = radio({"a"}, "a");
    const RadioSet before = set;

    EXPECT_EQ(set.toggle("a"), Result(Result::RefusedLastMood{}));
    EXPECT_EQ(set, before);
}

TEST(RadioSetTests, AMoodNotPresentIsAppendedAndNotPutOnAir) {
    RadioSet set = radio({"a", "b"}, "b");

    EXPECT_EQ(set.toggle("c"), Result(Result::Added{"c"}));
    EXPECT_EQ(set.moodIDs(), (Moods{"a", "b", "c"}));
    EXPECT_EQ(set.onAir(), "b");
}

TEST(RadioSetTests, RemovingTheMoodOnAirPutsTheNextOneOnAir) {
    RadioSet set = radio({"a", "b", "c"}, "b");

    EXPECT_EQ(set.toggle("b"), Result(Result::Removed{"b"}));
    EXPECT_EQ(set.onAir(), "c");
}

TEST(RadioSetTests, RemovingTheLastMoodOnAirPutsTheNewLastOneOnAir) {
    RadioSet set = radio({"a", "b", "c"}, "c");

    EXPECT_EQ(set.toggle("c"), Result(Result::Removed{"c"}));
    EXPECT_EQ(set.onAir(), "b");
}

TEST(RadioSetTests, RemovingAnotherMoodLeavesTheOneOnAir) {
    RadioSet set = radio({"a", "b", "c"}, "c");

    EXPECT_EQ(set.toggle("a"), Result(Result::Removed{"a"}));
    EXPECT_EQ(set.onAir(), "c");
    EXPECT_EQ(set.moodIDs(), (Moods{"b", "c"}));
}

TEST(RadioSetTests, RemovingADuplicateOnAirPutsOnAirWhatMovedIntoItsPlace) {
    RadioSet set = radio({"a", "b", "a"}, "a");

    EXPECT_EQ(set.toggle("a"), Result(Result::Removed{"a"}));
    EXPECT_EQ(set.onAir(), "b");
}

TEST(RadioSetTests, ContainsExactlyTheListedMoods) {
    const RadioSet set = radio({"a", "Bb"}, "a");

    EXPECT_TRUE(set.contains("Bb"));
    EXPECT_FALSE(set.contains("bb"));
    EXPECT_FALSE(set.contains("B"));
    EXPECT_FALSE(set.contains(""));
}

TEST(RadioSetTests, ResultsAreComparedByCaseAndPayload) {
    EXPECT_NE(Result(Result::Added{"a"}), Result(Result::Added{"b"}));
    EXPECT_NE(Result(Result::Added{"a"}), Result(Result::Removed{"a"}));
    EXPECT_NE(Result(Result::Removed{"a"}), Result(Result::RefusedLastMood{}));
}

TEST(RadioSetTests, TogglingByTheSetsOwnTextIsSafe) {
    RadioSet set = radio({"a", "b"}, "a");

    EXPECT_EQ(set.toggle(set.moodIDs().front()), Result(Result::Removed{"a"}));
    EXPECT_EQ(set.toggle(set.onAir()), Result(Result::RefusedLastMood{}));
}

TEST(RadioSetTests, OnlyTheFirstOfDuplicatesIsRemoved) {
    RadioSet set = radio({"a", "b", "a"}, "b");

    set.toggle("a");

    EXPECT_EQ(set.moodIDs(), (Moods{"b", "a"}));
}

TEST(RadioSetTests, AdvanceCyclesInListOrder) {
    RadioSet one = radio({"a"}, "a");
    RadioSet three = radio({"a", "b", "c"}, "b");

    EXPECT_EQ(one.advance(), "a");
    EXPECT_EQ(three.advance(), "c");
    EXPECT_EQ(three.advance(), "a");
    EXPECT_EQ(three.advance(), "b");
}

TEST(RadioSetTests, AdvanceFromAMoodThatIsNotListedGoesToTheSecond) {
    auto set = decodeJSON<RadioSet>(R"({"moodIDs":["a","b","c"],"onAir":"x"})");

    EXPECT_EQ(set.onAir(), "x");
    EXPECT_EQ(set.advance(), "b");
}

TEST(RadioSetTests, SummaryCountsMoods) {
    EXPECT_EQ(radio({"a"}, "a").summary(), "Radio · 1 mood");
    EXPECT_EQ(radio({"a", "b", "c", "d"}, "a").summary(), "Radio · 4 moods");
    EXPECT_EQ(decodeJSON<RadioSet>(R"({"moodIDs":[],"onAir":""})").summary(), "Radio · 0 moods");
}

TEST(RadioSetTests, AnEmptyRadioFromAFileIsTakenAsItStands) {
    auto set = decodeJSON<RadioSet>(R"({"onAir":"a","moodIDs":[]})");

    EXPECT_EQ(set.count(), 0U);
    EXPECT_EQ(set.advance(), "a");
    EXPECT_EQ(set.toggle("b"), Result(Result::Added{"b"}));
}

TEST(RadioSetTests, WritesItsKeysInOrderAndReadsThemBack) {
    const RadioSet set = radio({"a", "b"}, "b");
    const std::string text = R"({"moodIDs":["a","b"],"onAir":"b"})";

    EXPECT_EQ(encodeJSON(set, JSONWriter::Form::compact), text);
    EXPECT_EQ(decodeJSON<RadioSet>(text), set);
    EXPECT_THROW(static_cast<void>(decodeJSON<RadioSet>(R"({"moodIDs":["a"]})")), JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<RadioSet>(R"({"onAir":"a"})")), JSONError);
}

TEST(PickerModeTests, ReadsAndWritesItsRawValue) {
    EXPECT_EQ(decodeJSON<PickerMode>("\"radio\""), PickerMode::radio);
    EXPECT_EQ(decodeJSON<PickerMode>("\"mood\""), PickerMode::mood);
    EXPECT_EQ(encodeJSON(PickerMode::radio, JSONWriter::Form::compact), "\"radio\"");
    EXPECT_EQ(encodeJSON(PickerMode::mood, JSONWriter::Form::compact), "\"mood\"");
    EXPECT_EQ(fromRawValue<PickerMode>("Radio"), std::nullopt);
    EXPECT_EQ(fromRawValue<PickerMode>(""), std::nullopt);
    EXPECT_THROW(static_cast<void>(decodeJSON<PickerMode>("1")), JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<PickerMode>("\"tape\"")), JSONError);
}

}  // namespace
}  // namespace quillmere
