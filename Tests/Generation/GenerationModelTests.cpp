#include "QuillmereKit/Generation/GenerationModel.hpp"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

#include "QuillmereKit/Generation/GenerationEngine.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr auto medium = GenerationModel::medium;
constexpr auto smallMusic = GenerationModel::smallMusic;
constexpr auto mlx = GenerationEngine::mlx;
constexpr auto coreML = GenerationEngine::stableAudioCoreML;

TEST(GenerationModelTests, EachModelHasItsTexts) {
    EXPECT_EQ(allCases<GenerationModel>(), (std::array{medium, smallMusic}));

    EXPECT_EQ(rawValue(medium), "medium");
    EXPECT_EQ(label(medium), "Full");
    EXPECT_EQ(engineName(medium), "Medium");
    EXPECT_EQ(detail(medium), "Richer sound · takes longer to create");
    EXPECT_EQ(dit(medium), "medium");
    EXPECT_EQ(identityModel(medium), "sa3_medium_mlx_v2");

    EXPECT_EQ(rawValue(smallMusic), "small-music");
    EXPECT_EQ(label(smallMusic), "Light");
    EXPECT_EQ(engineName(smallMusic), "Small Music");
    EXPECT_EQ(detail(smallMusic), "Lighter sound · ready sooner");
    EXPECT_EQ(dit(smallMusic), "sm-music");
    EXPECT_EQ(identityModel(smallMusic), "sa3_small-music_mlx_v2");

    EXPECT_EQ(trackSeconds, 120.0);
}

TEST(GenerationEngineTests, EachEngineHasItsTexts) {
    EXPECT_EQ(allCases<GenerationEngine>(), (std::array{mlx, coreML}));

    EXPECT_EQ(rawValue(mlx), "mlx");
    EXPECT_EQ(shortLabel(mlx), "Standard");
    EXPECT_EQ(label(mlx), "Standard");
    EXPECT_EQ(detail(mlx), "Creates tracks of about 2 minutes");
    EXPECT_EQ(unavailableReason(mlx), "Preparing music files for Standard. Starter music can play meanwhile.");

    EXPECT_EQ(rawValue(coreML), "coreml-stable-audio");
    EXPECT_EQ(shortLabel(coreML), "Background");
    EXPECT_EQ(label(coreML), "Background");
    EXPECT_EQ(detail(coreML), "Creates two-minute tracks · may take longer");
    EXPECT_EQ(unavailableReason(coreML),
              "Download Background music files in Settings › New music › Advanced. Requires macOS 15 or later.");
}

TEST(GenerationEngineTests, AnIdentityModelJoinsModelAndEngine) {
    EXPECT_EQ(identityModel(mlx, medium), "sa3_medium_mlx_v2");
    EXPECT_EQ(identityModel(mlx, smallMusic), "sa3_small-music_mlx_v2");
    EXPECT_EQ(identityModel(coreML, medium), "sa3_medium_coreml_v1");
    EXPECT_EQ(identityModel(coreML, smallMusic), "sa3_small-music_coreml_v1");
}

TEST(GenerationEngineTests, EveryIdentityModelNamesItsEngineAndItsModel) {
    for (const auto engine : allCases<GenerationEngine>()) {
        for (const auto model : allCases<GenerationModel>()) {
            const auto text = identityModel(engine, model);
            SCOPED_TRACE(text);
            EXPECT_EQ(engineOfIdentityModel(text), engine);
            EXPECT_EQ(cachedModel(text), model);
        }
    }
}

TEST(GenerationModelTests, KnowsOnlyTheStandardEnginesStrings) {
    EXPECT_EQ(modelOfIdentityModel("sa3_medium_mlx_v2"), medium);
    EXPECT_EQ(modelOfIdentityModel("sa3_small-music_mlx_v2"), smallMusic);
    for (const char* text : {"sa3_small-music_coreml_v1", "sa3_medium_coreml_v1", "sa3_medium_mlx_v1", "medium", ""}) {
        EXPECT_EQ(modelOfIdentityModel(text), std::nullopt) << text;
    }
}

TEST(GenerationEngineTests, NamesNoEngineForAStringOfAnotherVersion) {
    for (const char* text : {"sa3_medium_mlx_v1", "sa3_medium_mlx_v3", "sa3_medium_coreml_v2", "sa3_large_mlx_v2",
                             "mlx", "sa3_medium_mlx_v2 ", ""}) {
        EXPECT_EQ(engineOfIdentityModel(text), std::nullopt) << text;
    }
}

TEST(GenerationModelTests, RecognisesTheModelOfAnyVersion) {
    EXPECT_EQ(cachedModel("sa3_medium_coreml_v7"), medium);
    EXPECT_EQ(cachedModel("sa3_small-music_coreml_v1"), smallMusic);
    EXPECT_EQ(cachedModel("sa3_small-music_mlx_v12"), smallMusic);
    EXPECT_EQ(cachedModel("sa3_medium_mlx_v007"), medium);
    EXPECT_EQ(cachedModel("sa3_medium_mlx_v9223372036854775807"), medium);
    for (const char* text :
         {"sa3_medium_mlx_v0", "sa3_medium_mlx_v000", "sa3_medium_mlx_v", "sa3_medium_mlx_v2b", "sa3_medium_mlx_v-1",
          "sa3_medium_mlx_v 2", "sa3_medium_mlx_v2 ", "sa3_medium_mlx_v2.0", "sa3_medium_mlx_v9223372036854775808",
          "sa3_medium_onnx_v2", "sa3_medium", "sa3_", "SA3_medium_mlx_v2", "sa3__mlx_v2", "",
          "sa3_medium_mlx_v\xd9\xa2"}) {  // the last digit is an Arabic-Indic two
        EXPECT_EQ(cachedModel(text), std::nullopt) << text;
    }
}

TEST(GenerationModelTests, IsWrittenAndReadAsItsRawValueAndNothingElse) {
    for (const auto model : allCases<GenerationModel>()) {
        const auto text = encodeJSON(model, JSONWriter::Form::compact);
        EXPECT_EQ(text, '"' + std::string(rawValue(model)) + '"');
        EXPECT_EQ(decodeJSON<GenerationModel>(text), model);
    }
    for (const char* text : {R"("Medium")", R"("smallMusic")", R"("")", "1", "null", "[]"}) {
        EXPECT_THROW((void)decodeJSON<GenerationModel>(text), JSONError) << text;
    }
}

TEST(GenerationEngineTests, IsWrittenAndReadAsItsRawValueAndNothingElse) {
    for (const auto engine : allCases<GenerationEngine>()) {
        const auto text = encodeJSON(engine, JSONWriter::Form::compact);
        EXPECT_EQ(text, '"' + std::string(rawValue(engine)) + '"');
        EXPECT_EQ(decodeJSON<GenerationEngine>(text), engine);
    }
    for (const char* text : {R"("MLX")", R"("coreml")", R"("")", "0", "null"}) {
        EXPECT_THROW((void)decodeJSON<GenerationEngine>(text), JSONError) << text;
    }
}

}  // namespace
}  // namespace quillmere
