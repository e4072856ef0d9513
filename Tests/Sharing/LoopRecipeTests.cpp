#include "QuillmereKit/Sharing/LoopRecipe.hpp"

#include <gtest/gtest.h>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"

namespace quillmere {
namespace {

using test::builtInRecipe;
using test::customRecipe;
using test::guidedSpec;
using test::sampleModel;
using test::sampleSpec;
using E = ImportError;

// The error that an operation throws; the test fails if it throws none.
std::optional<ImportError> errorOf(const auto& operation) {
    try {
        operation();
        return std::nullopt;
    } catch (const ImportError& error) {
        return error;
    }
}

std::optional<ImportError> validating(const LoopRecipe& recipe) {
    return errorOf([&] { recipe.validate(); });
}

// The fingerprint brought up to date, so that a later check decides.
LoopRecipe resigned(LoopRecipe recipe) {
    recipe.fingerprint = recipe.identity.fingerprint();
    return recipe;
}

TEST(LoopRecipeTests, IsMadeWithTheCurrentSchemaAndTheIdentitysFingerprint) {
    const LoopRecipe recipe = builtInRecipe();

    EXPECT_EQ(recipe.schema, "quillmere.recipe/2");
    EXPECT_EQ(recipe.fingerprint, recipe.identity.fingerprint());
}

TEST(LoopRecipeTests, TakesIdentityLengthAndSeamFromAnArtifact) {
    const LoopArtifact artifact{.identity = builtInRecipe().identity,
                                .url = FileURL::fromPath("/a.wav"),
                                .seconds = 90,
                                .seamDB = -33.5,
                                .engineBuild = "of the artifact"};

    const LoopRecipe recipe = LoopRecipe::make(artifact, "Name", {}, "given");

    EXPECT_EQ(recipe.identity, artifact.identity);
    EXPECT_EQ(recipe.seconds, 90);
    EXPECT_EQ(recipe.seamDB, -33.5);
    EXPECT_EQ(recipe.engineBuild, "given");
}

TEST(LoopRecipeTests, WithoutAudioIsSharedAsItIsWithSortedKeys) {
    const LoopRecipe recipe = builtInRecipe();

    EXPECT_EQ(recipe.forSharing(), recipe);
    EXPECT_EQ(recipe.encoded(), encodeJSON(recipe, JSONWriter::Form::pretty));
    EXPECT_TRUE(recipe.encoded().starts_with("{\n  \"engineBuild\" : \"build-1\",\n  \"fingerprint\" : \""));
    EXPECT_EQ(LoopRecipe::decode(recipe.encoded()), recipe);
}

TEST(LoopRecipeTests, ARecordingCannotBeShared) {
    LoopRecipe recipe = customRecipe(guidedSpec());
    recipe.identity.audio->kind = AudioUse::Kind::recording;

    EXPECT_EQ(errorOf([&] { static_cast<void>(recipe.encoded()); }), E(E::RequiresAudioExport{}));
}

TEST(LoopRecipeTests, ASongGuidedPieceIsSharedAsItsTagsOnly) {
    LoopRecipe recipe = customRecipe(guidedSpec());
    recipe.origin = RecipeOrigin{"chip"};
    recipe.audioSHA256 = std::string(64, '0');
    recipe.seamDB = -30;

    const LoopRecipe shared = recipe.forSharing();

    EXPECT_EQ(shared.name, "Rain \u00b7 tags only");
    EXPECT_EQ(shared.schema, "quillmere.recipe/2");
    EXPECT_NE(shared.fingerprint, recipe.fingerprint);
    EXPECT_EQ(shared.fingerprint, shared.identity.fingerprint());
    EXPECT_EQ(shared.identity.moodID, "my-12ab34cd-tags");
    EXPECT_EQ(shared.identity.audio, std::nullopt);
    EXPECT_EQ(shared.identity.blend, recipe.identity.blend);
    EXPECT_EQ(shared.identity.seed, recipe.identity.seed);
    EXPECT_EQ(shared.identity.model, recipe.identity.model);
    EXPECT_EQ(shared.moodSpec, recipe.moodSpec->tagsOnly());
    EXPECT_EQ(shared.engineBuild, recipe.engineBuild);
    EXPECT_EQ(shared.origin, recipe.origin);
    EXPECT_EQ(shared.audioSHA256, std::nullopt);
    EXPECT_EQ(shared.seconds, std::nullopt);
    EXPECT_EQ(shared.seamDB, std::nullopt);
    EXPECT_EQ(validating(shared), std::nullopt);
}

TEST(LoopRecipeTests, ASongGuidedPieceWithoutItsMoodCannotBeShared) {
    LoopRecipe recipe = customRecipe(guidedSpec());
    recipe.moodSpec.reset();

    EXPECT_EQ(errorOf([&] { static_cast<void>(recipe.forSharing()); }), E(E::InvalidMood{}));
}

TEST(LoopRecipeTests, ValidRecipesPass) {
    EXPECT_EQ(validating(builtInRecipe()), std::nullopt);
    for (std::int64_t blend = 0; blend < 5; ++blend) {
        EXPECT_EQ(validating(customRecipe(sampleSpec(), blend)), std::nullopt) << blend;
    }
}

TEST(LoopRecipeTests, PrivateAudioIsRefusedBeforeAnythingElse) {
    LoopRecipe song = customRecipe(guidedSpec());
    song.schema = "other";
    LoopRecipe guideInSpec = customRecipe();
    guideInSpec.moodSpec = guidedSpec();
    guideInSpec.identity.seed = -1;

    EXPECT_EQ(validating(song), E(E::RequiresAudioExport{}));
    EXPECT_EQ(validating(guideInSpec), E(E::RequiresAudioExport{}));
}

TEST(LoopRecipeTests, BothSingleSchemasAreReadAndNoOther) {
    LoopRecipe older = builtInRecipe();
    older.schema = "quillmere.recipe/1";
    EXPECT_EQ(validating(older), std::nullopt);

    for (const char* schema : {"", "quillmere.recipe/3", "quillmere.recipes/1", "Quillmere.recipe/2"}) {
        LoopRecipe other = builtInRecipe();
        other.schema = schema;
        EXPECT_EQ(validating(other), E(E::UnsupportedSchema{schema}));
    }
}

TEST(LoopRecipeTests, InputsThatNoRequestCanHaveAreRefused) {
    const auto with = [](const auto& change) {
        LoopRecipe recipe = builtInRecipe();
        change(recipe.identity);
        return validating(resigned(recipe));
    };
    const ImportError invalid(E::InvalidInputs{});

    EXPECT_EQ(with([](LoopIdentity& i) { i.blend = BlendStep::unclamped(5); }), invalid);
    EXPECT_EQ(with([](LoopIdentity& i) { i.blend = BlendStep::unclamped(-1); }), invalid);
    EXPECT_EQ(with([](LoopIdentity& i) { i.seed = -1; }), invalid);
    for (const char* id : {"", "a b", "a_b", "a/b", "..", "design.flow", "a\xff", "\xf0\x9f\x98\x80"}) {
        EXPECT_EQ(with([&](LoopIdentity& i) { i.moodID = id; }), invalid) << id;
    }
    EXPECT_EQ(with([](LoopIdentity& i) { i.moodID = "静か-é-3"; }), E(E::UnknownMood{"静か-é-3"}));
}

TEST(LoopRecipeTests, AnEditedFingerprintMeansADamagedFile) {
    LoopRecipe recipe = builtInRecipe();
    const std::string actual = recipe.fingerprint;
    recipe.fingerprint = "0000000000000000";

    const auto error = validating(recipe);

    EXPECT_EQ(error, E(E::FingerprintMismatch{"0000000000000000", actual}));
    EXPECT_EQ(error->message(), "This shared file is damaged.");
}

TEST(LoopRecipeTests, AUserMoodNeedsItsMatchingSpecification) {
    const ImportError invalid(E::InvalidMood{});
    const auto with = [](const auto& change) {
        LoopRecipe recipe = customRecipe();
        change(recipe);
        return validating(resigned(recipe));
    };

    EXPECT_EQ(with([](LoopRecipe& r) { r.moodSpec.reset(); }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.moodSpec = sampleSpec("my-other"); }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.moodSpec->calm = MoodEnd{}; }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.moodSpec->calm.text = "other"; }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.identity.calmPrompt += "x"; }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.identity.energeticPrompt += "x"; }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.identity.prompt.reset(); }), invalid);
    EXPECT_EQ(with([](LoopRecipe& r) { r.identity.prompt = "x"; }), invalid);
    EXPECT_EQ(with([](LoopRecipe&) {}), std::nullopt);
}

TEST(LoopRecipeTests, TemposOfAUserMoodLieBetween30And300) {
    const auto withTempo = [](std::int64_t calm, std::int64_t energetic) {
        MoodSpec spec = sampleSpec();
        spec.calm.bpm = calm;
        spec.energetic.bpm = energetic;
        return validating(customRecipe(spec));
    };
    const ImportError invalid(E::InvalidMood{});

    EXPECT_EQ(withTempo(29, 90), invalid);
    EXPECT_EQ(withTempo(301, 90), invalid);
    EXPECT_EQ(withTempo(60, 29), invalid);
    EXPECT_EQ(withTempo(60, 301), invalid);
    EXPECT_EQ(withTempo(30, 300), std::nullopt);
}

TEST(LoopRecipeTests, AUserMoodInAnOlderFileMustBeKnown) {
    LoopRecipe recipe = customRecipe();
    recipe.schema = "quillmere.recipe/1";

    EXPECT_EQ(validating(recipe), E(E::UnknownMood{"my-12ab34cd"}));
    EXPECT_NO_THROW(recipe.validate({"my-12ab34cd"}));
}

TEST(LoopRecipeTests, RenderingAgainNeedsTheSameRecipeVersionModelAndBuild) {
    const auto rendering = [](const LoopRecipe& recipe, const std::optional<std::string>& build) {
        return errorOf([&] { recipe.validateRendering(build); });
    };
    LoopRecipe newer = builtInRecipe();
    newer.identity.recipe = 2;
    LoopRecipe unsaid = builtInRecipe();
    unsaid.engineBuild.reset();

    EXPECT_EQ(rendering(builtInRecipe(), "build-1"), std::nullopt);
    EXPECT_EQ(rendering(resigned(newer), "build-1"), E(E::UnsupportedRecipe{2}));
    EXPECT_EQ(rendering(resigned(newer), std::nullopt), E(E::UnsupportedRecipe{2}));
    EXPECT_EQ(rendering(unsaid, std::nullopt), E(E::UnavailableModel{sampleModel}));
    EXPECT_EQ(rendering(unsaid, "build-1"), E(E::MissingEngineBuild{}));
    EXPECT_EQ(validating(unsaid), std::nullopt);
    EXPECT_EQ(rendering(builtInRecipe(), "build-2"), E(E::EngineBuildMismatch{}));
}

TEST(LoopRecipeTests, ReadingReportsJSONErrorsWithTheirPlace) {
    EXPECT_THROW(static_cast<void>(LoopRecipe::decode("{")), JSONError);
    std::string text = builtInRecipe().encoded();
    const auto at = text.find("\"seed\" : 1");
    text.replace(at, 10, "\"seed\" : \"1\"");
    try {
        static_cast<void>(LoopRecipe::decode(text));
        FAIL() << "a seed that is text was read";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "identity.seed");
    }
}

TEST(LoopRecipeTests, RequiredKeysAreRequiredAndOthersIgnored) {
    for (const char* key : {"schema", "name", "identity", "fingerprint"}) {
        std::string text = encodeJSON(builtInRecipe(), JSONWriter::Form::compact);
        const auto at = text.find("\"" + std::string(key) + "\"");
        text.replace(at + 1, 1, "X");
        EXPECT_THROW(static_cast<void>(decodeJSON<LoopRecipe>(text)), JSONError) << key;
    }
    std::string text = encodeJSON(builtInRecipe(), JSONWriter::Form::compact);
    text.insert(1, "\"extra\":[1e999,null],");
    EXPECT_EQ(decodeJSON<LoopRecipe>(text), builtInRecipe());
}

TEST(LoopRecipeTests, WrittenFileHasEveryFieldUnderItsNameAndNoAbsentOnes) {
    LoopRecipe recipe = builtInRecipe();
    recipe.audioSHA256 = std::string(64, '0');
    recipe.seamDB = -40.5;
    const std::string sharedFile = R"({
  "audioSHA256" : "0000000000000000000000000000000000000000000000000000000000000000",
  "engineBuild" : "build-1",
  "fingerprint" : "FINGERPRINT",
  "identity" : {
    "blend" : {
      "index" : 1
    },
    "calmPrompt" : "CALM",
    "energeticPrompt" : "ENERGETIC",
    "model" : "sa3_medium_mlx_v2",
    "moodID" : "MOOD",
    "recipe" : 1,
    "seed" : 1
  },
  "name" : "Design Flow",
  "origin" : {
    "chip" : "A chip"
  },
  "schema" : "quillmere.recipe\/2",
  "seamDB" : -40.5,
  "seconds" : 120
})";
    const auto filled = [&](std::string text) {
        const auto put = [&](std::string_view name, const std::string& value) {
            text.replace(text.find(name), name.size(), value);
        };
        put("FINGERPRINT", recipe.fingerprint);
        put("CALM", recipe.identity.calmPrompt);
        put("ENERGETIC", recipe.identity.energeticPrompt);
        put("MOOD", recipe.identity.moodID);
        return text;
    };

    EXPECT_EQ(recipe.encoded(), filled(sharedFile));

    const LoopRecipe bare = LoopRecipe::make("N", recipe.identity);
    const std::string text = encodeJSON(bare, JSONWriter::Form::compact);
    EXPECT_TRUE(text.starts_with(R"({"schema":"quillmere.recipe\/2","name":"N","identity":{"moodID":)")) << text;
    EXPECT_TRUE(text.ends_with(R"("recipe":1},"fingerprint":")" + bare.fingerprint + "\"}")) << text;
    EXPECT_EQ(LoopRecipe::decode(text), bare);
}

TEST(LoopRecipeTests, EveryFieldCountsInEqualityAndHash) {
    const LoopRecipe recipe = builtInRecipe();
    const auto changed = [&](const auto& change) {
        LoopRecipe other = recipe;
        change(other);
        return other;
    };
    const LoopRecipe others[] = {
        changed([](LoopRecipe& r) { r.schema = "x"; }),
        changed([](LoopRecipe& r) { r.name = "x"; }),
        changed([](LoopRecipe& r) { r.identity.seed = 9; }),
        changed([](LoopRecipe& r) { r.fingerprint = "x"; }),
        changed([](LoopRecipe& r) { r.moodSpec = sampleSpec(); }),
        changed([](LoopRecipe& r) { r.engineBuild = "x"; }),
        changed([](LoopRecipe& r) { r.origin.reset(); }),
        changed([](LoopRecipe& r) { r.audioSHA256 = "x"; }),
        changed([](LoopRecipe& r) { r.seconds.reset(); }),
        changed([](LoopRecipe& r) { r.seamDB = 0; }),
    };
    const std::hash<LoopRecipe> hash;

    EXPECT_EQ(recipe, builtInRecipe());
    EXPECT_EQ(hash(recipe), hash(builtInRecipe()));
    for (const LoopRecipe& other : others) {
        SCOPED_TRACE(&other - others);
        EXPECT_NE(other, recipe);
        EXPECT_NE(hash(other), hash(recipe));
    }
}

}  // namespace
}  // namespace quillmere
