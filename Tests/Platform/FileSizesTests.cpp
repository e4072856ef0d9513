#include "QuillmereKit/Platform/FileSizes.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

TEST(FileSizesTests, AreThoseOfTheRegularFilesDirectlyInTheFolder) {
    const TemporaryFolder folder;
    folder.putFile("Loops/empty.wav", "");
    const auto piece = folder.putFile("Loops/piece.wav", std::string(5000, 'x'));
    folder.putFile("Loops/below/deep.wav", "12345");
    std::filesystem::create_symlink(piece, folder.path() / "Loops/link.wav");
    if (::mkfifo((folder.path() / "Loops/fifo.wav").c_str(), 0600) != 0) std::abort();

    const FileSizes sizes(folder.path() / "Loops");

    EXPECT_EQ(sizes.of("empty.wav"), 0U);
    EXPECT_EQ(sizes.of("piece.wav"), 5000U);
    for (const char* name : {"below", "deep.wav", "below/deep.wav", "link.wav", "fifo.wav", "piece", ".", "..", ""}) {
        EXPECT_EQ(sizes.of(name), std::nullopt) << name;
    }
}

TEST(FileSizesTests, StayWhatTheyWere) {
    const TemporaryFolder folder;
    const auto piece = folder.putFile("piece.wav", "12345");

    const FileSizes sizes(folder.path());
    std::filesystem::remove(piece);
    folder.putFile("later.wav", "1");

    EXPECT_EQ(sizes.of("piece.wav"), 5U);
    EXPECT_EQ(sizes.of("later.wav"), std::nullopt);
}

TEST(FileSizesTests, AreNoneWhereThereIsNoFolder) {
    const TemporaryFolder folder;
    folder.putFile("file.wav", "12345");

    EXPECT_EQ(FileSizes(folder.path() / "nowhere").of("file.wav"), std::nullopt);
    EXPECT_EQ(FileSizes(folder.path() / "file.wav").of("file.wav"), std::nullopt);
}

}  // namespace
}  // namespace quillmere::test
