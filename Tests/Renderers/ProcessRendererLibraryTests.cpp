// What a render does in the library's folder.

#include <gmock/gmock.h>
#include <limits.h>

#include <limits>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "Renderers/ProcessRenderer.hpp"
#include "Tests/Renderers/ProcessRendererFixture.hpp"

namespace quillmere::test {
namespace {

using Reason = EngineFailure::Reason;
using testing::ElementsAre;
using testing::IsEmpty;

struct ProcessRendererLibraryTests : ProcessRendererTests {
    /// Whether an engine is started for a request that cannot be rendered.
    void expectUnusable() {
        const auto note = folder.path() / "request";

        EXPECT_EQ(failureOf({"record", note.string()}).reason(), Reason::unusableRequest);

        EXPECT_FALSE(std::filesystem::exists(note));
        EXPECT_THAT(library(), IsEmpty());
    }

    /// The files that were moved out of the piece's way.
    std::vector<std::string> unlisted() const {
        auto names = library();
        std::erase_if(names, [&](const auto& name) {
            return !name.starts_with(identity.filename() + ".unlisted-") || !name.ends_with(".wav");
        });
        return names;
    }
};

TEST_F(ProcessRendererLibraryTests, AMoodThatCannotNameAFileIsRefused) {
    for (const std::string& id : {std::string("a/b"), std::string("../../up"), std::string("/"), std::string("a\0b", 3),
                                  std::string(NAME_MAX, 'x')}) {
        SCOPED_TRACE(id);
        identity.moodID = id;

        expectUnusable();
    }
}

TEST_F(ProcessRendererLibraryTests, TheLongestMoodThatCanNameAFileIsRendered) {
    identity.moodID = "x";
    identity.moodID = std::string(NAME_MAX + 1 - pieceName().size(), 'x');
    ASSERT_EQ(pieceName().size(), std::size_t{NAME_MAX});

    render({"well"});

    EXPECT_THAT(library(), ElementsAre(pieceName()));
}

TEST_F(ProcessRendererLibraryTests, AnOddMoodNamesItsFileAllTheSame) {
    identity.moodID = "..%20 \xC3\xA4?#\n";

    EXPECT_EQ(render({"well"}).url.path(), loops / pieceName());
}

TEST_F(ProcessRendererLibraryTests, ARequestThatIsNoTextIsRefused) {
    identity.calmPrompt = "\xFF";
    expectUnusable();
}

TEST_F(ProcessRendererLibraryTests, ALengthThatIsNoneIsRefused) {
    for (const double length : {0.0, -1.0, 1e-9, 3600.1, 1e300, std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN()}) {
        SCOPED_TRACE(length);
        seconds = length;

        expectUnusable();
    }
}

TEST_F(ProcessRendererLibraryTests, AFileOfThePiecesNameThatNoPieceListsIsKept) {
    folder.putFile("Loops/" + pieceName(), "from a run that crashed before it was stored");

    const auto piece = render({"well"});

    EXPECT_EQ(std::filesystem::file_size(piece.url.path()), 44U + 24000 * 4);
    const auto kept = unlisted();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(folder.content("Loops/" + kept[0]), "from a run that crashed before it was stored");
}

TEST_F(ProcessRendererLibraryTests, MusicWhoseManifestWasDamagedIsKeptWhenItIsRenderedAgain) {
    store->add(render({"well"}));
    const auto before = folder.content("Loops/" + pieceName());
    store.reset();
    folder.putFile("Loops/manifest.json", "[{");
    store = std::make_shared<LoopStore>(loops, ResourceBundle(folder.path() / "none"),
                                        [](const FileURL& url) { return std::filesystem::remove(url.path()); });

    store->add(render({"rewrites"}));

    EXPECT_TRUE(store->contains(identity));
    EXPECT_NE(folder.content("Loops/" + pieceName()), before);
    const auto kept = unlisted();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(folder.content("Loops/" + kept[0]), before);
}

TEST_F(ProcessRendererLibraryTests, AFileThatCannotBeMovedAsideStaysWhereItIs) {
    identity.moodID = "x";
    identity.moodID = std::string(NAME_MAX + 1 - pieceName().size(), 'x');  // no longer name is to be had
    folder.putFile("Loops/" + pieceName(), "stray");

    EXPECT_THROW(render({"well"}), FileError);

    EXPECT_THAT(library(), ElementsAre(pieceName()));
    EXPECT_EQ(folder.content("Loops/" + pieceName()), "stray");
}

TEST_F(ProcessRendererLibraryTests, APieceThatIsAboutToBeStoredIsNotMovedAway) {
    const auto with = renderer({"well"});
    const auto first = render(*with);

    EXPECT_EQ(failureOf(*with).reason(), Reason::nameInUse);

    EXPECT_THAT(library(), ElementsAre(pieceName()));
    store->add(first);
    EXPECT_EQ(store->lastSaveError(), std::nullopt);
    EXPECT_EQ(failureOf(*with).reason(), Reason::nameInUse);  // a piece uses it now
}

TEST_F(ProcessRendererLibraryTests, APieceThatWasListedAndRemovedMayBeRenderedAgainThoughItsFileIsBack) {
    options.filingLimit = {};
    const auto with = renderer({"well"});
    store->add(render(*with));
    const auto music = folder.content("Loops/" + pieceName());
    ASSERT_EQ(store->trash([](const LoopArtifact&) { return true; }).size(), 1U);
    folder.putFile("Loops/" + pieceName(), music);  // out of the trash

    store->add(render(*with));

    EXPECT_TRUE(store->contains(identity));
    EXPECT_EQ(unlisted().size(), 1U);
}

TEST_F(ProcessRendererLibraryTests, APieceThatNobodyWantedMayBeRenderedAgain) {
    const auto with = renderer({"well"});
    for (int time = 0; time < 3; ++time) ASSERT_TRUE(store->discardUnstored(render(*with).url));

    store->add(render(*with));

    EXPECT_THAT(library(), ElementsAre(pieceName()));
}

TEST_F(ProcessRendererLibraryTests, AFileThatAPieceUsesIsNeverReplaced) {
    folder.putFile("Loops/" + pieceName(), "music");
    auto otherIdentity = identity;
    otherIdentity.seed = 99;
    store->add({.identity = otherIdentity, .url = FileURL::fromPath(loops / pieceName()), .seconds = 1});

    EXPECT_EQ(failureOf({"well"}).reason(), Reason::nameInUse);

    EXPECT_EQ(folder.content("Loops/" + pieceName()), "music");
}

TEST_F(ProcessRendererLibraryTests, WhatIsNoFileOfTheLibraryIsNeverReplaced) {
    const auto precious = folder.putFile("precious", "keep me");
    std::filesystem::create_symlink(precious, loops / pieceName());

    EXPECT_EQ(failureOf({"well"}).reason(), Reason::nameInUse);

    EXPECT_TRUE(std::filesystem::is_symlink(loops / pieceName()));
    EXPECT_EQ(folder.content("precious"), "keep me");

    std::filesystem::remove(loops / pieceName());
    folder.putFile("Loops/" + pieceName() + "/inside", "a folder of that name");

    EXPECT_EQ(failureOf({"well"}).reason(), Reason::nameInUse);
    EXPECT_EQ(folder.content("Loops/" + pieceName() + "/inside"), "a folder of that name");
}

TEST_F(ProcessRendererLibraryTests, ALibraryWhoseFolderIsGoneIsAFailure) {
    std::filesystem::remove_all(loops);

    EXPECT_THROW(render({"well"}), FileError);

    EXPECT_FALSE(std::filesystem::exists(loops));
    std::filesystem::create_directory(loops);
}

TEST_F(ProcessRendererLibraryTests, FoldersOfRunsThatDiedInTheMakingAreRemoved) {
    const auto fresh = [] { return ".Render-" + UUID::random().text(); };
    const std::string empty = fresh(), unlocked = fresh(), held = fresh(), other = ".Render-not-ours";
    for (const auto& name : {empty, unlocked, held, other}) std::filesystem::create_directory(loops / name);
    folder.putFile("Loops/" + unlocked + "/.lock", "");
    const auto lock = FolderLock::tryAcquire(loops / held / ".lock");
    ASSERT_NE(lock, nullptr);

    render({"well"});

    EXPECT_FALSE(std::filesystem::exists(loops / empty));
    EXPECT_FALSE(std::filesystem::exists(loops / unlocked));
    EXPECT_TRUE(std::filesystem::exists(loops / held));
    EXPECT_TRUE(std::filesystem::exists(loops / other));
    std::filesystem::remove_all(loops / held);
    std::filesystem::remove(loops / other);
}

TEST_F(ProcessRendererLibraryTests, TheExampleEngineRenders) {
    const std::filesystem::path example = QUILLMERE_SOURCES "/Examples/engine.py";
    options.reportInterval = std::chrono::milliseconds(0);
    seconds = 2.5;
    ProcessRenderer with({"python3", example.string()}, store, options);

    const auto piece = render(with);

    EXPECT_EQ(piece.seconds, 2.5);
    EXPECT_EQ(piece.engineBuild, "chord-1");
    ASSERT_FALSE(audio.empty());
    EXPECT_EQ(audio.back().seconds, 2.5);
    EXPECT_THAT(stages, testing::Contains(GenerationStage(GenerationStage::Sampling{3, 3})));
    EXPECT_GT(piece.quality->loudness->integratedLUFS.value(), -30);

    identity.audio = AudioUse{};
    EXPECT_THROW(render(with), EngineFailure);
}

TEST_F(ProcessRendererLibraryTests, TheExampleEngineIsTheDocumentedOne) {
    const TemporaryFolder copies;
    std::filesystem::copy(QUILLMERE_SOURCES "/Examples/engine.py", copies.path() / "engine.py");
    std::filesystem::copy(QUILLMERE_SOURCES "/Documentation/engines.md", copies.path() / "engines.md");

    EXPECT_THAT(copies.content("engines.md"),
                testing::HasSubstr("```python\n" + copies.content("engine.py") + "```\n"));
}

}  // namespace
}  // namespace quillmere::test
