#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

// A program of its own: once the module is loaded, it stays.
namespace quillmere::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct LosslessMissingTests : testing::Test {
    TemporaryFolder folder;
    std::string start = bigEndian(28) + "ftypM4A " + std::string(16, '\0');

    LosslessMissingTests() { place(folder.path() / "nowhere.so"); }

    static void place(const std::filesystem::path& module) { ::setenv("QUILLMERE_LOSSLESS_MODULE", module.c_str(), 1); }

    static std::string reason() {
        try {
            static_cast<void>(losslessModule());
            return "";
        } catch (const LosslessUnavailable& error) {
            return error.what();
        }
    }
};

TEST_F(LosslessMissingTests, AModuleThatIsNotThereIsSaidSo) {
    EXPECT_EQ(reason(), "Apple Lossless files cannot be read or written: QuillmereLossless.so is not installed.");
}

TEST_F(LosslessMissingTests, AModuleThatCannotBeLoadedIsSaidSoWithTheReason) {
    place(folder.putFile("QuillmereLossless.so", "no library"));

    EXPECT_THAT(reason(), StartsWith("Apple Lossless files cannot be read or written: "));
    EXPECT_THAT(reason(), HasSubstr((folder.path() / "QuillmereLossless.so").native()));
}

TEST_F(LosslessMissingTests, AnotherLibraryIsNotTakenForTheModule) {
    place(OTHER_LIBRARY);

    EXPECT_THAT(reason(), HasSubstr("belongs to another version."));
}

TEST_F(LosslessMissingTests, ALosslessFileIsNotCalledCorrupt) {
    const auto file = folder.putFile("audio.m4a", start);

    EXPECT_THROW(AudioFile{file}, LosslessUnavailable);
    EXPECT_THROW(static_cast<void>(AudioPCM::digest(FileURL::fromPath(file))), LosslessUnavailable);
}

TEST_F(LosslessMissingTests, WAVFilesAreReadWithoutIt) {
    const std::vector<std::int16_t> samples = {1, -2, 3, -4};
    const auto file = folder.putFile("audio.wav", wavBytes(samples));

    EXPECT_EQ(AudioFile(file).frames(), 2);
    EXPECT_EQ(AudioPCM::digest(FileURL::fromPath(file)).size(), 64U);
}

TEST_F(LosslessMissingTests, NothingIsEncodedAndNoFileIsLeft) {
    const auto source = folder.putFile("audio.wav", wavBytes(std::vector<std::int16_t>{1, -2, 3, -4}));

    EXPECT_THROW(encodeALAC(FileURL::fromPath(source), FileURL::fromPath(folder.path() / "audio.m4a")),
                 LosslessUnavailable);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"audio.wav"});
}

}  // namespace
}  // namespace quillmere::test
