// What a render does in the library's folder.

#include <gmock/gmock.h>
#include <limits.h>

#include <limits>
#include <utility>

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

TEST_F(ProcessRendererLibraryTests, AStrayFileOfThePiecesNameIsReplaced) {
    folder.putFile("Loops/" + pieceName(), "from a run that crashed before it was stored");

    const auto piece = render({"well"});

    EXPECT_EQ(std::filesystem::file_size(piece.url.path()), 44U + 24000 * 4);
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

TEST_F(ProcessRendererLibraryTests, AStrayFileThatCannotBeDiscardedIsKept) {
    const auto first = std::exchange(
        store, std::make_shared<LoopStore>(folder.path() / "Keeps", ResourceBundle(folder.path() / "none"),
                                           [](const FileURL&) { return false; }));
    folder.putFile("Keeps/" + pieceName(), "stray");

    EXPECT_EQ(failureOf({"well"}).reason(), Reason::nameInUse);

    EXPECT_EQ(folder.content("Keeps/" + pieceName()), "stray");
    store = first;
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
