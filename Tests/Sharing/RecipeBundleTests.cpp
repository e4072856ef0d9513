#include "QuillmereKit/Sharing/RecipeBundle.hpp"

#include <gtest/gtest.h>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"

namespace quillmere {
namespace {

using test::builtInRecipe;
using test::customRecipe;
using test::guidedSpec;

TEST(RecipeBundleTests, IsWrittenWithSortedKeysAndReadBack) {
    const RecipeBundle bundle{.recipes = {builtInRecipe(1), customRecipe()}};

    const std::string bytes = bundle.encoded();

    EXPECT_TRUE(bytes.starts_with("{\n  \"recipes\" : [\n    {\n      \"engineBuild\""));
    EXPECT_EQ(RecipeBundle::decode(bytes), bundle);
}

TEST(RecipeBundleTests, ABundleWithARecordingCannotBeWritten) {
    RecipeBundle bundle{.recipes = {builtInRecipe(), customRecipe(guidedSpec())}};
    bundle.recipes[1].identity.audio->kind = AudioUse::Kind::recording;

    EXPECT_THROW(static_cast<void>(bundle.encoded()), ImportError);
}

TEST(RecipeBundleTests, AnotherSchemaIsRefused) {
    for (const std::string schema : {"quillmere.recipe/2", "quillmere.recipes/2", ""}) {
        const RecipeBundle bundle{.schema = schema, .recipes = {}};
        try {
            static_cast<void>(RecipeBundle::decode(encodeJSON(bundle, JSONWriter::Form::pretty)));
            FAIL() << schema;
        } catch (const ImportError& error) {
            EXPECT_EQ(error, ImportError(ImportError::UnsupportedSchema{schema}));
        }
    }
}

TEST(RecipeBundleTests, ASingleRecipeIsNoBundle) {
    EXPECT_THROW(static_cast<void>(RecipeBundle::decode(builtInRecipe().encoded())), ImportError);
}

TEST(RecipeBundleTests, ReadingDoesNotValidateTheRecipesInside) {
    RecipeBundle bundle{.recipes = {builtInRecipe()}};
    bundle.recipes[0].fingerprint = "edited";

    EXPECT_EQ(RecipeBundle::decode(encodeJSON(bundle, JSONWriter::Form::pretty)), bundle);
}

TEST(RecipeBundleTests, PartitionKeepsFileOrder) {
    RecipeBundle bundle{.recipes = {builtInRecipe(1), builtInRecipe(2), builtInRecipe(3), builtInRecipe(4)}};
    bundle.recipes[0].fingerprint = "edited";
    bundle.recipes[2].schema = "x";

    const auto parts = bundle.partition();

    EXPECT_EQ(parts.usable, (std::vector<LoopRecipe>{bundle.recipes[1], bundle.recipes[3]}));
    ASSERT_EQ(parts.rejected.size(), 2U);
    EXPECT_EQ(parts.rejected[0].recipe, bundle.recipes[0]);
    EXPECT_EQ(parts.rejected[0].error.caseName(), "fingerprintMismatch");
    EXPECT_EQ(parts.rejected[1].error, ImportError(ImportError::UnsupportedSchema{"x"}));
}

TEST(RecipeBundleTests, ErrorsNameTheRecipe) {
    const std::string text = R"({"schema":"quillmere.recipes/1","recipes":[{"schema":"quillmere.recipe/2"}]})";
    try {
        static_cast<void>(RecipeBundle::decode(text));
        FAIL();
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "recipes[0].name");
    }
}

}  // namespace
}  // namespace quillmere
