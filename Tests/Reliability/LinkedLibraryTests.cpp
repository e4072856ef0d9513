// A library whose folder is a link, when nobody can say where it leads.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

TEST(LinkedLibraries, FileThatAnotherPieceNamesByItsRealPlaceStaysWhereThatCannotBeFoundOut) {
    for (int failing = 0;; ++failing) {
        SCOPED_TRACE("call " + std::to_string(failing));
        const TemporaryFolder home;
        home.putFile("Real/piece.wav", "precious");
        std::filesystem::create_directory_symlink("Real", home.path() / "Loops");
        const auto pieceAt = [&](const char* place, std::int64_t seed) {
            return LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, seed),
                                                FileURL::fromPath(home.path() / place));
        };
        const auto pruned = pieceAt("Loops/piece.wav", 1);
        const auto kept = pieceAt("Real/piece.wav", 2);
        home.putFile("Real/manifest.json", encodeJSON(std::vector{pruned, kept}, JSONWriter::Form::compact));
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path() / "App"));

        std::string struck;
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "realpath"});
            EXPECT_EQ(store.prune({kept.id()}), 1);
            struck = faults.struck();
        }

        EXPECT_EQ(home.content("Real/piece.wav"), "precious");
        EXPECT_TRUE(store.contains(kept.identity));
        if (failing > 0 && (struck.empty() || testing::Test::HasFailure())) break;
    }
}

}  // namespace
}  // namespace quillmere::test
