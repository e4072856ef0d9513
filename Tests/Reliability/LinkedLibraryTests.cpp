// A library whose folder is a link, when nobody can say where it leads.

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
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
            const auto count = store.prune({kept.id()});
            struck = faults.struck();
            // Where it stays for want of an answer, its entry does too, and somebody is told.
            EXPECT_EQ(count, store.contains(pruned.identity) ? 0 : 1);
            EXPECT_EQ(store.contains(pruned.identity), store.lastSaveError().has_value());
            EXPECT_TRUE(!struck.empty() || count == 1);
        }

        EXPECT_EQ(home.content("Real/piece.wav"), "precious");
        EXPECT_TRUE(store.contains(kept.identity));
        static_cast<void>(store.prune({kept.id()}));
        EXPECT_FALSE(store.contains(pruned.identity));
        EXPECT_EQ(store.lastSaveError(), std::nullopt);
        EXPECT_EQ(home.content("Real/piece.wav"), "precious");
        if (failing > 0 && (struck.empty() || testing::Test::HasFailure())) break;
    }
}

/// A library of two pieces in the folder, and one that names `other` and cannot be looked at.
struct UnseenPiece {
    explicit UnseenPiece(const char* other) : unseen(at(other, 3)) {
        home.putFile("Loops/manifest.json", encodeJSON(std::vector{first, second, unseen}, JSONWriter::Form::compact));
    }

    [[nodiscard]] LoopArtifact at(const char* place, std::int64_t seed) const {
        return LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, seed),
                                            FileURL::fromPath(home.path() / place));
    }
    [[nodiscard]] LoopStore open() const {
        return LoopStore(home.path() / "Loops", ResourceBundle(home.path() / "App"),
                         [](const FileURL& url) { return std::filesystem::remove(url.path()); });
    }
    /// The folder itself is found first; then the one piece whose place is asked for is not.
    [[nodiscard]] static SystemCallFaults::Plan hiding() { return {.failing = 2, .error = EACCES, .call = "realpath"}; }

    TemporaryFolder home;
    LoopArtifact first = at("Loops/first.wav", 1);
    LoopArtifact second = at("Loops/second.wav", 2);
    std::string firstAudio = home.putFile("Loops/first.wav", "RIFF");
    std::string secondAudio = home.putFile("Loops/second.wav", "RIFF");
    LoopArtifact unseen;
};

TEST(LinkedLibraries, FinishedWorkThatAPieceNamesByItsRealPlaceIsNoLeftover) {
    const std::string work = "Render-01234567-89AB-4DEF-8123-456789ABCDEF";
    for (const char* way : {"Real", "Another"}) {
        SCOPED_TRACE(way);
        const TemporaryFolder home;
        const auto audio = home.putFile("Real/" + work + "/audio.wav", "precious");
        home.putFile("Real/" + work + "/.lock", "");
        const auto leftover = home.putFile("Real/Render-ABCDEF01-89AB-4DEF-8123-456789ABCDEF/.lock", "");
        for (const char* name : {"Loops", "Another"}) {
            std::filesystem::create_directory_symlink("Real", home.path() / name);
        }
        const auto piece = LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, 1),
                                                        FileURL::fromPath(home.path() / way / work / "audio.wav"));
        home.putFile("Real/manifest.json", encodeJSON(std::vector{piece}, JSONWriter::Form::compact));

        const LoopStore store(home.path() / "Loops", ResourceBundle(home.path() / "App"));

        EXPECT_EQ(store.all(), std::vector{piece});
        EXPECT_TRUE(std::filesystem::exists(audio));
        EXPECT_FALSE(std::filesystem::exists(leftover));
    }
}

TEST(LinkedLibraries, FinishedWorkStaysWhereTheRealPlaceOfAPieceCannotBeFoundOut) {
    const std::string work = "Render-01234567-89AB-4DEF-8123-456789ABCDEF";
    for (const char* call : {"realpath", "stat", "lstat", "readlink"}) {
        for (int failing = 1;; ++failing) {
            SCOPED_TRACE(call + (" " + std::to_string(failing)));
            const TemporaryFolder home;
            const auto audio = home.putFile("Real/" + work + "/audio.wav", "precious");
            home.putFile("Real/" + work + "/.lock", "");
            for (const char* name : {"Loops", "Another"}) {
                std::filesystem::create_directory_symlink("Real", home.path() / name);
            }
            const auto piece =
                LoopStoreFixture::artifactAt(LoopStoreFixture::identity("rain", 2, 1),
                                             FileURL::fromPath(home.path() / "Another" / work / "audio.wav"));
            home.putFile("Real/manifest.json", encodeJSON(std::vector{piece}, JSONWriter::Form::compact));
            std::string struck;
            {
                const SystemCallFaults faults({.failing = failing, .error = EIO, .call = call});
                const LoopStore store(home.path() / "Loops", ResourceBundle(home.path() / "App"));
                struck = faults.struck();
            }
            EXPECT_TRUE(std::filesystem::exists(audio));
            if (struck.empty() || testing::Test::HasFailure()) break;
        }
    }
}

TEST(LinkedLibraries, PieceElsewhereThatCannotBeLookedAtKeepsNoFileOfTheFolder) {
    UnseenPiece library("Mount/unseen.wav");
    library.home.putFile("Mount/unseen.wav", "RIFF");
    const auto stray = library.home.putFile("Loops/stray.wav", "RIFF");
    auto store = library.open();

    {
        const SystemCallFaults faults(UnseenPiece::hiding());
        EXPECT_EQ(store.prune({library.second.id(), library.unseen.id()}), 1);
    }
    {
        const SystemCallFaults faults(UnseenPiece::hiding());
        EXPECT_EQ(store.trash([&](const auto& piece) { return piece == library.second; }).size(), 1U);
    }
    {
        const SystemCallFaults faults(UnseenPiece::hiding());
        EXPECT_TRUE(store.discardUnstored(FileURL::fromPath(stray)));
    }

    for (const auto& file : {library.firstAudio, library.secondAudio, stray.string()}) {
        EXPECT_FALSE(std::filesystem::exists(file)) << file;
    }
    EXPECT_EQ(store.all(), std::vector{library.unseen});
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST(LinkedLibraries, FilesThatStayBecauseALinkCannotBeFollowedKeepTheirEntriesAndSomebodyIsTold) {
    for (const char* link : {"Loops/unseen.wav", "Elsewhere/unseen.wav"}) {
        SCOPED_TRACE(link);
        UnseenPiece library(link);
        const auto place = library.home.path() / link;
        std::filesystem::create_directories(place.parent_path());
        std::filesystem::create_symlink(library.secondAudio, place);
        const auto stray = library.home.putFile("Loops/stray.wav", "RIFF");
        auto store = library.open();
        const auto before = library.home.content("Loops/manifest.json");
        const auto pieces = store.all();
        ASSERT_EQ(pieces.size(), 3U);
        const auto expectAllThere = [&] {
            EXPECT_EQ(store.all(), pieces);
            EXPECT_EQ(library.home.content("Loops/manifest.json"), before);
            for (const auto& file : {library.firstAudio, library.secondAudio, stray.string()}) {
                EXPECT_TRUE(std::filesystem::exists(file)) << file;
            }
            EXPECT_NE(store.lastSaveError().value_or("").find("unseen.wav"), std::string::npos);
        };

        {
            const SystemCallFaults faults(UnseenPiece::hiding());
            EXPECT_EQ(store.prune({library.unseen.id()}), 0);
        }
        expectAllThere();
        {
            const SystemCallFaults faults(UnseenPiece::hiding());
            EXPECT_TRUE(store.trash([&](const auto& piece) { return piece != library.unseen; }).empty());
        }
        expectAllThere();
        {
            const SystemCallFaults faults(UnseenPiece::hiding());
            EXPECT_FALSE(store.discardUnstored(FileURL::fromPath(stray)));
        }
        expectAllThere();

        EXPECT_EQ(store.prune({library.unseen.id()}), 2) << "as soon as it can be looked at";
        EXPECT_FALSE(std::filesystem::exists(library.firstAudio));
        EXPECT_TRUE(std::filesystem::exists(library.secondAudio)) << "the piece that stays plays it";
        EXPECT_EQ(store.lastSaveError(), std::nullopt);
    }
}

TEST(LinkedLibraries, LinkPutInAFoldersPlaceLeadsNoFileAsideThatIsNotTheLibrarys) {
    for (int call = 1;; ++call) {
        SCOPED_TRACE("before call " + std::to_string(call));
        const TemporaryFolder home;
        const auto file = home.putFile("Loops/Sub/rain.wav", "unlisted");
        home.putFile("Outside/rain.wav", "a stranger's");
        LoopStore store(home.path() / "Loops", ResourceBundle(home.path() / "App"));
        const auto swap = [&] {
            std::filesystem::rename(home.path() / "Loops/Sub", home.path() / "Loops/Was");
            std::filesystem::create_directory_symlink(home.path() / "Outside", home.path() / "Loops/Sub");
        };

        std::string struck;
        {
            const SystemCallFaults faults({.failing = call, .meanwhile = swap});
            try {
                static_cast<void>(store.moveUnstoredAside(FileURL::fromPath(file)));
            } catch (const FileError&) {
                EXPECT_TRUE(std::filesystem::exists(home.path() / "Loops/Was/rain.wav")) << "what failed moved nothing";
            }
            struck = faults.struck();
        }

        EXPECT_EQ(home.content("Outside/rain.wav"), "a stranger's");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home.path() / "Outside"), {}), 1);
        if (struck.empty() || testing::Test::HasFailure()) break;
    }
}

}  // namespace
}  // namespace quillmere::test
