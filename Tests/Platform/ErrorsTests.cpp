#include "QuillmereKit/Platform/Errors.hpp"

#include <gtest/gtest.h>

namespace quillmere::test {
namespace {

TEST(ErrorsTests, FileErrorSaysStepFileAndCause) {
    const FileError error("open", "/a/b.json", std::make_error_code(std::errc::no_such_file_or_directory));

    EXPECT_STREQ(error.what(), "Could not open \"/a/b.json\": No such file or directory");
    EXPECT_EQ(error.step(), "open");
    EXPECT_EQ(error.path(), "/a/b.json");
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(error.isInPlace());
    EXPECT_TRUE(error.inPlace().isInPlace());
    EXPECT_STREQ(error.inPlace().what(), error.what());
}

TEST(ErrorsTests, EachFileFaultHasItsOwnText) {
    const auto text = [](FileFault fault) { return std::error_code(fault).message(); };

    EXPECT_EQ(text(FileFault::fileReadCorruptFile), "The file is damaged or of another format.");
    EXPECT_EQ(text(FileFault::fileWriteUnknown), "What was written could not be confirmed.");
    EXPECT_EQ(text(FileFault::fileReadTooLarge), "The file is too large.");
    EXPECT_EQ(text(FileFault::fileNotRegular), "This is not a regular file.");
    EXPECT_EQ(text(FileFault::fileNotOwn), "The file is left alone: it holds something else.");
    EXPECT_EQ(std::error_code(FileFault::fileNotRegular).category().message(99), "Unknown file fault 99.");
    EXPECT_NE(std::error_code(FileFault::fileReadCorruptFile), std::error_code(1, std::system_category()));
    EXPECT_EQ(std::error_code(FileFault::fileNotRegular), FileFault::fileNotRegular);
}

TEST(ErrorsTests, JSONErrorNamesThePlaceFromOutsideIn) {
    const JSONError inner("is missing");
    EXPECT_STREQ(inner.what(), "is missing");

    const JSONError outer = inner.inMember("seed").inMember("identity").inElement(3).inMember("recipes");

    EXPECT_EQ(outer.path(), "recipes[3].identity.seed");
    EXPECT_EQ(outer.reason(), "is missing");
    EXPECT_STREQ(outer.what(), "recipes[3].identity.seed: is missing");
    EXPECT_EQ(inner.inElement(1).inElement(0).path(), "[0][1]");
    EXPECT_EQ(inner.inElement(2).inMember("").path(), "[2]");
}

TEST(ErrorsTests, EveryErrorIsCaughtAsTheLibrarysOwn) {
    EXPECT_THROW(throw CancellationError(), Error);
    EXPECT_THROW(throw EncodingError("x"), Error);
    EXPECT_THROW(throw JSONError("x"), Error);
    EXPECT_THROW(throw FileError("open", "/a", FileFault::fileNotRegular), Error);
}

}  // namespace
}  // namespace quillmere::test
