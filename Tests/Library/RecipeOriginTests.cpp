#include "QuillmereKit/Library/RecipeOrigin.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::test {
namespace {

TEST(RecipeOrigin, JSONHoldsTheChip) {
    const RecipeOrigin origin{.chip = "Chip ™ 9/2"};

    const std::string text = encodeJSON(origin, JSONWriter::Form::compact);

    EXPECT_EQ(text, R"({"chip":"Chip ™ 9\/2"})");
    EXPECT_EQ(decodeJSON<RecipeOrigin>(text), origin);
}

TEST(RecipeOrigin, JSONNeedsTheChip) {
    for (const char* text : {"{}", R"({"chip":null})", R"({"chip":9})", R"({"Chip":"x"})", R"("x")"}) {
        EXPECT_THROW((void)decodeJSON<RecipeOrigin>(text), JSONError) << text;
    }
}

TEST(RecipeOrigin, ChipThatIsNotUTF8IsNotWritten) {
    EXPECT_THROW((void)encodeJSON(RecipeOrigin{.chip = "\xff"}, JSONWriter::Form::compact), EncodingError);
}

TEST(RecipeOrigin, ChipCountsInEqualityAndHash) {
    const std::hash<RecipeOrigin> hash;

    EXPECT_EQ(RecipeOrigin{.chip = "a"}, RecipeOrigin{.chip = "a"});
    EXPECT_EQ(hash({.chip = "a"}), hash({.chip = "a"}));
    EXPECT_NE(RecipeOrigin{.chip = "a"}, RecipeOrigin{.chip = "b"});
    EXPECT_NE(hash({.chip = "a"}), hash({.chip = "b"}));
}

}  // namespace
}  // namespace quillmere::test
