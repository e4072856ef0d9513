#include "App/LibraryCheck.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <stop_token>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::app {
namespace {

void ignorePiece(std::size_t, std::size_t, const std::string&) {}

struct LibraryCheckTests : testing::Test {
    test::TemporaryFolder folder;
    std::stop_source stop;
};

TEST_F(LibraryCheckTests, StopsBetweenTheFilesOfAFolder) {
    folder.putFile("below/mine.wav", "x");
    stop.request_stop();
    EXPECT_THROW(static_cast<void>(LibraryCheck::make(folder.path(), stop.get_token(), ignorePiece)),
                 CancellationError);

    // Not only once all is read: then the manifest would already have been found to be damaged.
    folder.putFile("manifest.json", "[");
    EXPECT_THROW(static_cast<void>(LibraryCheck::make(folder.path(), stop.get_token(), ignorePiece)),
                 CancellationError);
}

TEST_F(LibraryCheckTests, AStopDuringTheLastPieceLeavesNoFindings) {
    folder.putFile("manifest.json",
                   R"([{"identity":{"moodID":"sprint","blend":{"index":2},"calmPrompt":"","energeticPrompt":"",)"
                   R"("seed":1,"model":"m","recipe":1},"url":"file:///gone.wav","seconds":1}])");
    EXPECT_EQ(LibraryCheck::make(folder.path(), stop.get_token(), ignorePiece).missing.size(), 1U);

    const auto stopThere = [&](std::size_t, std::size_t, const std::string&) { stop.request_stop(); };

    EXPECT_THROW(static_cast<void>(LibraryCheck::make(folder.path(), stop.get_token(), stopThere)), CancellationError);
}

}  // namespace
}  // namespace quillmere::app
