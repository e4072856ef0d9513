#include "QuillmereKit/Moods/MoodCatalog.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {
namespace {

struct BuiltInRow {
    const char* id;
    const char* name;
    MoodFamily family;
    MoodGlyph glyph;
    const char* calm;
    const char* energetic;
};

const std::vector<BuiltInRow> builtInRows = {
    {"deepcode", "Deep Code", MoodFamily::focus, MoodGlyph::pulse,
     "sustained warm pads, gentle motion, smooth, instrumental",
     "soft electronic pulse, warm sustained pads, gentle motion, instrumental"},
    {"sprint", "Sprint", MoodFamily::focus, MoodGlyph::bolt,
     "pulsing synth arpeggio, warm sustained pads, steady forward motion, instrumental",
     "driving synth arpeggio, steady electronic pulse, warm pads, forward motion, instrumental"},
    {"writing", "Writing", MoodFamily::focus, MoodGlyph::wave, nullptr, nullptr},
    {"deepread", "Deep Read", MoodFamily::focus, MoodGlyph::arc, nullptr, nullptr},
    {"meetingprep", "Meeting Prep", MoodFamily::focus, MoodGlyph::grain,
     "calm corporate ambient bed, even sustained pads, smooth, instrumental",
     "corporate underscore bed, soft steady pulse, unobtrusive, instrumental"},
    {"morningstart", "Morning Start", MoodFamily::focus, MoodGlyph::step, nullptr, nullptr},
    {"designflow", "Design Flow", MoodFamily::ambient, MoodGlyph::wave,
     "warm analog synth pads, clean spacious sound, gentle motion, instrumental",
     "melodic downtempo, brushed drums, airy synths, unobtrusive groove, instrumental"},
    {"longhaul", "Long Haul", MoodFamily::ambient, MoodGlyph::arc, nullptr, nullptr},
    {"rainroom", "Rain Room", MoodFamily::ambient, MoodGlyph::grain, nullptr, nullptr},
    {"studiohaze", "Studio Haze", MoodFamily::ambient, MoodGlyph::ring, nullptr, nullptr},
    {"glassroom", "Glass Room", MoodFamily::ambient, MoodGlyph::step, nullptr, nullptr},
    {"longdrive", "Long Drive", MoodFamily::ambient, MoodGlyph::pulse, nullptr, nullptr},
    {"winddown", "Wind Down", MoodFamily::low, MoodGlyph::descend,
     "warm ambient pads, deep reverb, slow motion, smooth, instrumental",
     "warm electric piano chords, gentle bass pulse, sustained soft pads, relaxed tempo, instrumental"},
    {"latenight", "Late Night", MoodFamily::low, MoodGlyph::descend, nullptr, nullptr},
    {"recovery", "Recovery", MoodFamily::low, MoodGlyph::arc,
     "warm restorative pads, gentle sustained tones, slow breathing motion, smooth, instrumental",
     "warm restorative pads, gentle sustained tones, slow steady pulse, flowing motion, instrumental"},
    {"slowsunday", "Slow Sunday", MoodFamily::low, MoodGlyph::ring, nullptr, nullptr},
    {"afterhours", "After Hours", MoodFamily::low, MoodGlyph::grain, nullptr, nullptr},
    {"deeprest", "Deep Rest", MoodFamily::low, MoodGlyph::step, nullptr, nullptr},
};

std::vector<std::string> ids(const std::vector<Mood>& moods) {
    std::vector<std::string> ids;
    for (const auto& mood : moods) ids.push_back(mood.id);
    return ids;
}

struct MoodCatalogTests : testing::Test {
    test::TemporaryFolder folder;
    CustomMoodStore store{folder.path() / "Moods.json"};
    MoodSpec rain{
        .id = "my-rain",
        .name = "Rain",
        .glyph = MoodGlyph::grain,
        .calm = {{{TagCategory::nature, "rain"}}, "soft", 60},
        .energetic = {{{TagCategory::genre, "techno"}}, "driving", 120},
        .soundGuide = std::nullopt,
    };
    MoodSpec blank = MoodSpec::blank(MoodGlyph::wave);

    /// Three minutes of guide audio for the rain mood.
    SoundGuide guide{
        .format = std::string(SoundGuide::currentFormat),
        .assetID = std::string(64, '7'),
        .storageID = "my-rain",
        .model = GenerationModel::smallMusic,
        .sampleCount = 180 * 44100,
        .latentCount = 1938,
        .sourceName = "rain.wav",
        .sourceOffset = 0,
        .strength = 0.5,
    };

    LoopIdentity identityOf(const MoodSpec& spec, std::int64_t index = 1) const {
        return Mood(spec).identity(BlendStep(index), 7, "sa3_medium_mlx_v2").value();
    }
};

TEST(MoodFamilyTests, FamiliesHaveTheirRawValuesAndTitlesInMenuOrder) {
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"mine", "My moods"}, {"focus", "Focus"}, {"ambient", "Ambient"}, {"low", "Wind down"}};
    std::vector<std::pair<std::string, std::string>> found;
    for (const auto family : allCases<MoodFamily>()) {
        found.emplace_back(rawValue(family), title(family));
        EXPECT_EQ(decodeJSON<MoodFamily>(encodeJSON(family, JSONWriter::Form::compact)), family);
    }
    EXPECT_EQ(found, expected);
    EXPECT_THROW((void)decodeJSON<MoodFamily>(R"("other")"), JSONError);
}

TEST_F(MoodCatalogTests, TheBuiltInMoodsAreTheEighteenInMenuOrder) {
    const auto& moods = MoodCatalog::builtIn();

    ASSERT_EQ(moods.size(), builtInRows.size());
    for (std::size_t i = 0; i < moods.size(); ++i) {
        const auto& row = builtInRows[i];
        const auto& mood = moods[i];
        SCOPED_TRACE(row.id);
        EXPECT_EQ(mood.id, row.id);
        EXPECT_EQ(mood.name, row.name);
        EXPECT_EQ(mood.family, row.family);
        EXPECT_EQ(mood.glyph, row.glyph);
        EXPECT_FALSE(mood.spec);
        EXPECT_FALSE(mood.id.starts_with(MoodSpec::idPrefix));
        ASSERT_EQ(mood.isPlayable(), row.calm != nullptr);
        if (row.calm != nullptr) {
            EXPECT_EQ(mood.prompt(Anchor::calm), row.calm);
            EXPECT_EQ(mood.prompt(Anchor::energetic), row.energetic);
        } else {
            EXPECT_EQ(mood.prompt(Anchor::calm), std::nullopt);
        }
    }
    EXPECT_EQ(&MoodCatalog::builtIn(), &moods);
}

TEST_F(MoodCatalogTests, TheDefaultIsDesignFlow) {
    EXPECT_EQ(MoodCatalog::defaultMood().id, "designflow");
    EXPECT_TRUE(MoodCatalog::defaultMood().isPlayable());
}

TEST_F(MoodCatalogTests, AllListsTheUsersMoodsAfterTheBuiltInOnes) {
    EXPECT_EQ(MoodCatalog::all(store), MoodCatalog::builtIn());
    store.save(rain);
    store.save(blank);

    const auto moods = MoodCatalog::all(store);
    ASSERT_EQ(moods.size(), 20U);
    EXPECT_EQ(moods[18], Mood(blank));
    EXPECT_EQ(moods[19], Mood(rain));
}

TEST_F(MoodCatalogTests, AnUnplayableUserMoodIsListedWithoutPrompts) {
    const Mood mood(blank);

    EXPECT_EQ(mood.family, MoodFamily::mine);
    EXPECT_EQ(mood.prompts, std::nullopt);
    EXPECT_FALSE(mood.isPlayable());
    EXPECT_EQ(mood.spec, blank);
    EXPECT_EQ(mood.identity(BlendStep(1), 1, "m"), std::nullopt);
}

TEST_F(MoodCatalogTests, AUserMoodHasThePromptsOfItsUnmixedEnds) {
    const Mood mood(rain);

    EXPECT_EQ(mood.id, "my-rain");
    EXPECT_EQ(mood.name, "Rain");
    EXPECT_EQ(mood.family, MoodFamily::mine);
    EXPECT_EQ(mood.glyph, MoodGlyph::grain);
    EXPECT_EQ(mood.prompt(Anchor::calm), rain.calm.prompt());
    EXPECT_EQ(mood.prompt(Anchor::energetic), rain.energetic.prompt());
    EXPECT_EQ(mood.spec, rain);
}

TEST_F(MoodCatalogTests, AMoodIsFoundByItsExactId) {
    store.save(rain);

    EXPECT_EQ(MoodCatalog::mood("sprint", store), MoodCatalog::builtIn()[1]);
    EXPECT_EQ(MoodCatalog::mood("my-rain", store), Mood(rain));
    for (const char* id : {"", "Sprint", "my-", "my-rain ", "rain"}) {
        EXPECT_EQ(MoodCatalog::mood(id, store), std::nullopt) << id;
    }
}

TEST_F(MoodCatalogTests, ABuiltInMoodGoesBeforeAUsersOfTheSameId) {
    rain.id = "sprint";
    store.save(rain);

    EXPECT_EQ(MoodCatalog::mood("sprint", store), MoodCatalog::builtIn()[1]);
    EXPECT_EQ(MoodCatalog::all(store).size(), 19U);
}

TEST_F(MoodCatalogTests, TheSharedStoreServesFamiliesPlayableMoodsAndLookUp) {
    const std::vector<std::string> six = {"deepcode", "sprint", "meetingprep", "designflow", "winddown", "recovery"};
    auto& shared = CustomMoodStore::shared();
    ASSERT_TRUE(shared.all().empty());
    EXPECT_EQ(ids(MoodCatalog::playable()), six);
    EXPECT_TRUE(MoodCatalog::family(MoodFamily::mine).empty());
    EXPECT_EQ(ids(MoodCatalog::family(MoodFamily::focus)),
              (std::vector<std::string>{"deepcode", "sprint", "writing", "deepread", "meetingprep", "morningstart"}));
    EXPECT_EQ(ids(MoodCatalog::family(MoodFamily::ambient)),
              (std::vector<std::string>{"designflow", "longhaul", "rainroom", "studiohaze", "glassroom", "longdrive"}));
    EXPECT_EQ(ids(MoodCatalog::family(MoodFamily::low)),
              (std::vector<std::string>{"winddown", "latenight", "recovery", "slowsunday", "afterhours", "deeprest"}));

    shared.save(blank);
    shared.save(rain);

    EXPECT_EQ(ids(MoodCatalog::family(MoodFamily::mine)), (std::vector<std::string>{"my-rain", blank.id}));
    auto seven = six;
    seven.push_back("my-rain");
    EXPECT_EQ(ids(MoodCatalog::playable()), seven);
    EXPECT_EQ(MoodCatalog::mood("my-rain"), Mood(rain));
    EXPECT_EQ(MoodCatalog::mood("nobody"), std::nullopt);
    shared.remove("my-rain");
    shared.remove(blank.id);
}

TEST_F(MoodCatalogTests, ABuiltInMoodsIdentityHasNoPromptOfItsOwn) {
    const auto identity = MoodCatalog::defaultMood().identity(BlendStep(3), -5, "sa3_medium_coreml_v1");

    ASSERT_TRUE(identity);
    EXPECT_EQ(*identity, (LoopIdentity{
                             .moodID = "designflow",
                             .blend = BlendStep(3),
                             .calmPrompt = builtInRows[6].calm,
                             .energeticPrompt = builtInRows[6].energetic,
                             .seed = -5,
                             .model = "sa3_medium_coreml_v1",
                             .prompt = std::nullopt,
                             .audio = std::nullopt,
                             .recipe = 1,
                         }));
}

TEST_F(MoodCatalogTests, AMoodThatCannotBePlayedHasNoIdentity) {
    EXPECT_EQ(MoodCatalog::mood("writing", store)->identity(BlendStep(1), 1, "m"), std::nullopt);
    const Mood halved("x", "X", MoodFamily::low, MoodGlyph::arc, Mood::Prompts{{Anchor::calm, "pads"}});
    EXPECT_TRUE(halved.isPlayable());
    EXPECT_EQ(halved.prompt(Anchor::energetic), std::nullopt);
    EXPECT_EQ(halved.identity(BlendStep(1), 1, "m"), std::nullopt);
}

TEST_F(MoodCatalogTests, AUserMoodsIdentityCarriesTheMixedPrompt) {
    for (const auto step : BlendStep::all()) {
        const auto identity = Mood(rain).identity(step, 7, "anything");
        ASSERT_TRUE(identity);
        EXPECT_EQ(identity->moodID, "my-rain");
        EXPECT_EQ(identity->blend, step);
        EXPECT_EQ(identity->calmPrompt, rain.calm.prompt());
        EXPECT_EQ(identity->energeticPrompt, rain.energetic.prompt());
        EXPECT_EQ(identity->prompt, rain.prompt(step));
        EXPECT_EQ(identity->model, "anything");
        EXPECT_FALSE(identity->audio);
        EXPECT_EQ(identity->recipe, LoopIdentity::currentRecipe);
    }
}

TEST_F(MoodCatalogTests, AGuidedMoodsIdentityTakesTheGuidesModelAndAPartOfIt) {
    rain.soundGuide = guide;
    for (const std::int64_t seed : {1, 2, 3, 4}) {
        const auto identity = Mood(rain).identity(BlendStep(2), seed, "sa3_medium_coreml_v1");
        ASSERT_TRUE(identity);
        EXPECT_EQ(identity->model, "sa3_small-music_mlx_v2");
        EXPECT_EQ(identity->prompt, rain.prompt(BlendStep(2)));
        EXPECT_EQ(identity->audio, (AudioUse{guide, guide.offset(seed, 120.0), AudioUse::Kind::song}));
    }
    rain.soundGuide->model = GenerationModel::medium;
    EXPECT_EQ(Mood(rain).identity(BlendStep(2), 1, "x")->model, "sa3_medium_mlx_v2");
}

TEST_F(MoodCatalogTests, EveryLoopOfABuiltInOrUnknownMoodIsCurrent) {
    LoopIdentity identity = MoodCatalog::defaultMood().identity(BlendStep(3), 1, "m").value();
    identity.calmPrompt = "an older prompt";
    EXPECT_TRUE(MoodCatalog::isCurrent(identity, store));
    for (const char* id : {"gone", "", "My-rain", "m"}) {
        identity.moodID = id;
        EXPECT_TRUE(MoodCatalog::isCurrent(identity, store)) << id;
    }
}

TEST_F(MoodCatalogTests, ALoopIsCurrentWhileItsMoodAsksForIt) {
    EXPECT_FALSE(MoodCatalog::isCurrent(identityOf(rain), store));  // no such mood yet
    store.save(rain);
    for (const auto step : BlendStep::all()) EXPECT_TRUE(MoodCatalog::isCurrent(identityOf(rain, step.index()), store));
    store.remove(rain.id);
    EXPECT_FALSE(MoodCatalog::isCurrent(identityOf(rain), store));
}

TEST_F(MoodCatalogTests, EditingWhatIsHeardMakesEarlierLoopsStaleAndRenamingDoesNot) {
    const auto loop = identityOf(rain);
    const std::vector<std::pair<bool, std::function<void(MoodSpec&)>>> edits = {
        {true, [](auto& s) { s.name = "Downpour"; }},
        {true, [](auto& s) { s.glyph = MoodGlyph::bolt; }},
        {false,
         [](auto& s) {
             s.calm.tags.push_back({TagCategory::moods, "calm"});
         }},
        {false, [](auto& s) { s.energetic.text = "pushing"; }},
        {false, [](auto& s) { s.calm.bpm = 61; }},
        {false, [](auto& s) { s.energetic.bpm.reset(); }},
        {false, [this](auto& s) { s.soundGuide = guide; }},
        {false, [](auto& s) { s.calm = MoodEnd::empty; }},
    };
    for (std::size_t i = 0; i < edits.size(); ++i) {
        SCOPED_TRACE(i);
        MoodSpec edited = rain;
        edits[i].second(edited);
        store.save(edited);
        EXPECT_EQ(MoodCatalog::isCurrent(loop, store), edits[i].first);
    }
}

TEST_F(MoodCatalogTests, ALoopOfAGuidedMoodIsStaleOnceTheGuideChanges) {
    rain.soundGuide = guide;
    store.save(rain);
    const auto loop = identityOf(rain);
    EXPECT_TRUE(MoodCatalog::isCurrent(loop, store));

    rain.soundGuide->strength = 0.625;
    store.save(rain);
    EXPECT_FALSE(MoodCatalog::isCurrent(loop, store));

    rain.soundGuide.reset();
    store.save(rain);
    EXPECT_FALSE(MoodCatalog::isCurrent(loop, store));
}

TEST_F(MoodCatalogTests, ALoopThatDiffersInAnyFieldIsStale) {
    store.save(rain);
    const std::vector<std::function<void(LoopIdentity&)>> changes = {
        [](auto& i) { i.calmPrompt += "x"; },
        [](auto& i) { i.energeticPrompt += "x"; },
        [](auto& i) { i.prompt.reset(); },
        [](auto& i) { i.recipe = 2; },
        [](auto& i) { i.blend = BlendStep(2); },
        [this](auto& i) { i.audio = AudioUse{guide, 0, AudioUse::Kind::song}; },
    };
    for (std::size_t n = 0; n < changes.size(); ++n) {
        auto loop = identityOf(rain);
        changes[n](loop);
        EXPECT_FALSE(MoodCatalog::isCurrent(loop, store)) << n;
    }
    // Seed and model are the loop's own.
    auto loop = identityOf(rain);
    loop.seed = 8;
    loop.model = "another";
    EXPECT_TRUE(MoodCatalog::isCurrent(loop, store));
}

TEST_F(MoodCatalogTests, ARecordingIsAlwaysCurrent) {
    auto loop = identityOf(rain);
    loop.audio = AudioUse{guide, 0, AudioUse::Kind::recording};

    EXPECT_TRUE(MoodCatalog::isCurrent(loop, store));
    loop.audio->kind = AudioUse::Kind::song;
    EXPECT_FALSE(MoodCatalog::isCurrent(loop, store));
}

TEST_F(MoodCatalogTests, AbsurdNumbersInALoopOrAMoodStopNothing) {
    rain.calm.bpm = std::numeric_limits<std::int64_t>::min();
    rain.energetic.bpm = std::numeric_limits<std::int64_t>::max();
    store.save(rain);
    auto loop = identityOf(rain);
    EXPECT_TRUE(MoodCatalog::isCurrent(loop, store));
    loop.blend = BlendStep::unclamped(std::numeric_limits<std::int64_t>::min());
    EXPECT_FALSE(MoodCatalog::isCurrent(loop, store));
}

TEST_F(MoodCatalogTests, EveryFieldOfAMoodCountsInEqualityAndHash) {
    const std::hash<Mood> hash;
    const Mood mood(rain);
    EXPECT_EQ(hash(mood), hash(Mood(rain)));
    const std::vector<std::function<void(Mood&)>> changes = {
        [](auto& m) { m.id += "x"; },
        [](auto& m) { m.name += "x"; },
        [](auto& m) { m.family = MoodFamily::low; },
        [](auto& m) { m.glyph = MoodGlyph::arc; },
        [](auto& m) { m.prompts.reset(); },
        [](auto& m) { m.prompts->erase(Anchor::calm); },
        [](auto& m) { m.prompts->at(Anchor::calm) += "x"; },
        [](auto& m) { m.spec.reset(); },
        [](auto& m) { m.spec->name += "x"; },
    };
    std::set<std::size_t> hashes{hash(mood)};
    for (const auto& change : changes) {
        Mood changed = mood;
        change(changed);
        EXPECT_NE(changed, mood);
        hashes.insert(hash(changed));
    }
    EXPECT_EQ(hashes.size(), changes.size() + 1);
}

}  // namespace
}  // namespace quillmere
