#include "QuillmereKit/Moods/TagVocabulary.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {
namespace {

const TagVocabulary sample{{
    {TagCategory::moods, {{"calm", "a book"}, {"warm", ""}}},
    {TagCategory::genre, {{"ambient", "a list"}}},
    {TagCategory::moods, {{"hidden", "later"}}},
}};

constexpr const char* sampleText =
    R"({"sections":[{"category":"moods","tags":[{"tag":"calm","source":"a book"},{"tag":"warm","source":""}]},)"
    R"({"category":"genre","tags":[{"tag":"ambient","source":"a list"}]},)"
    R"({"category":"moods","tags":[{"tag":"hidden","source":"later"}]}]})";

TEST(TagVocabularyTests, AFileIsLoadedInItsOrder) {
    const test::TemporaryFolder folder;

    EXPECT_EQ(TagVocabulary::load(folder.putFile("tags.json", sampleText)), sample);
    EXPECT_EQ(encodeJSON(sample, JSONWriter::Form::compact), sampleText);
    EXPECT_EQ(TagVocabulary::load(folder.putFile("none.json", R"({"sections":[]})")), TagVocabulary{});
}

TEST(TagVocabularyTests, ALinkToAFileWillDo) {
    const test::TemporaryFolder folder;
    folder.putFile("tags.json", sampleText);
    std::filesystem::create_symlink("tags.json", folder.path() / "link.json");

    EXPECT_EQ(TagVocabulary::load(folder.path() / "link.json"), sample);
}

TEST(TagVocabularyTests, OnlyTheFirstSectionOfACategoryCounts) {
    EXPECT_EQ(sample.tags(TagCategory::moods), (std::vector<TagVocabulary::Entry>{{"calm", "a book"}, {"warm", ""}}));
    EXPECT_EQ(sample.tags(TagCategory::genre), (std::vector<TagVocabulary::Entry>{{"ambient", "a list"}}));
    EXPECT_TRUE(sample.tags(TagCategory::nature).empty());
}

TEST(TagVocabularyTests, AFileThatIsNoVocabularyFailsAsAWhole) {
    const test::TemporaryFolder folder;
    for (const char* text : {
             R"({"sections":[{"category":"genre","tags":[]},{"category":"colour","tags":[]}]})",
             R"({"sections":[{"category":"genre","tags":[{"tag":"ambient"}]}]})",
             R"({"sections":[{"category":"genre","tags":[{"source":"x"}]}]})",
             R"({"sections":[{"category":"genre"}]})",
             R"({"sections":[{"tags":[]}]})",
             R"({"sections":{}})",
             R"({})",
             "[]",
             "",
             "{\"sections\":[",
             "{\"sections\":[],\"x\":\"\xff\"}",
         }) {
        EXPECT_THROW((void)TagVocabulary::load(folder.putFile("tags.json", text)), JSONError) << text;
    }
    try {
        (void)TagVocabulary::load(
            folder.putFile("tags.json", R"({"sections":[{"category":"genre","tags":[{"tag":"ambient"}]}]})"));
        FAIL() << "loaded";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "sections[0].tags[0].source");
    }
}

TEST(TagVocabularyTests, AFileThatCannotBeReadIsAFileError) {
    const test::TemporaryFolder folder;
    try {
        (void)TagVocabulary::load(folder.path() / "missing.json");
        FAIL() << "loaded";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
    EXPECT_THROW((void)TagVocabulary::load(folder.path()), FileError);

    const auto large = folder.putFile("large.json", "{}");
    std::filesystem::resize_file(large, TagVocabulary::mostBytes + 1);  // sparse
    try {
        (void)TagVocabulary::load(large);
        FAIL() << "loaded";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), FileFault::fileReadTooLarge);
    }
}

TEST(TagVocabularyTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<TagVocabulary> hash;
    TagVocabulary other = sample;
    EXPECT_EQ(hash(other), hash(sample));
    other.sections[0].tags[1].source = "x";
    EXPECT_NE(other, sample);
    EXPECT_NE(hash(other), hash(sample));
    other = sample;
    other.sections[0].tags[1].tag = "x";
    EXPECT_NE(hash(other), hash(sample));
    other = sample;
    other.sections[1].category = TagCategory::texture;
    EXPECT_NE(hash(other), hash(sample));
}

}  // namespace
}  // namespace quillmere
