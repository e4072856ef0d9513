#include "QuillmereKit/Library/FileSHA256.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

struct FileSHA256Tests : testing::Test {
    TemporaryFolder folder;

    [[nodiscard]] std::string digestOf(const std::string& bytes) const {
        return FileSHA256::digest(FileURL::fromPath(folder.putFile("file", bytes)));
    }

    static std::error_code errorOf(const std::filesystem::path& file) {
        try {
            static_cast<void>(FileSHA256::digest(FileURL::fromPath(file)));
            return {};
        } catch (const FileError& error) {
            return error.code();
        }
    }
};

TEST_F(FileSHA256Tests, TheDigestIsThatOfTheFilesBytesInLowerCase) {
    // The values are those of the program "sha256sum"; the first is also in FIPS 180-4's examples.
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(FileSHA256Tests, FilesOfManyChunksAreDigestedWhole) {
    EXPECT_EQ(digestOf(std::string(1'048'576, 'a')),
              "9bc1b2a288b26af7257a36277ae3816a7d4f16e89c1e7e77d0a5c48bad62b360");
    EXPECT_EQ(digestOf(std::string(2'500'000, 'a')),
              "38a637965059125eeb67f54c30e7f48a61859a467a800ba09740ba48a924f2b9");
}

TEST_F(FileSHA256Tests, WhatCannotBeReadIsAnError) {
    ASSERT_EQ(::mkfifo((folder.path() / "fifo").c_str(), 0600), 0);

    EXPECT_EQ(errorOf(folder.path() / "missing"), std::errc::no_such_file_or_directory);
    EXPECT_EQ(errorOf(folder.path()), make_error_code(FileFault::fileNotRegular));
    EXPECT_EQ(errorOf(folder.path() / "fifo"), make_error_code(FileFault::fileNotRegular));
    EXPECT_EQ(errorOf("/dev/zero"), make_error_code(FileFault::fileNotRegular));
}

}  // namespace
}  // namespace quillmere::test
