// Which files an engine may name, and which audio is the audio that was asked for.

#include <gmock/gmock.h>

#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Renderers/ProcessRenderer.hpp"
#include "Tests/Renderers/ProcessRendererFixture.hpp"

namespace quillmere::test {
namespace {

using Reason = EngineFailure::Reason;
using testing::HasSubstr;
using testing::IsEmpty;

struct ProcessRendererAudioTests : ProcessRendererTests {
    /// Perfectly good audio, but outside every working folder.
    std::filesystem::path outside = folder.path() / "outside.wav";
    std::string outsideBytes;

    ProcessRendererAudioTests() {
        WAVWriter file(outside, 48000, 2);
        file.write(std::vector<std::int16_t>(48000, 100));
        file.finish();
        outsideBytes = folder.content("outside.wav");
    }
    ~ProcessRendererAudioTests() override {
        EXPECT_EQ(folder.content("outside.wav"), outsideBytes);
        EXPECT_EQ(std::filesystem::hard_link_count(outside), 1U);
    }
};

TEST_F(ProcessRendererAudioTests, AFileOutsideTheWorkingFolderIsRefused) {
    for (const std::string& name : {std::string("../../outside.wav"), outside.string(), std::string("../manifest.json"),
                                    std::string("./audio.wav"), std::string("sub/audio.wav"), std::string("audio.wav/"),
                                    std::string(""), std::string("."), std::string(".."), std::string("/"),
                                    std::string("/dev/zero"), std::string(R"(audio.wav\u0000)")}) {
        SCOPED_TRACE(name);

        EXPECT_EQ(failureOf({"names", name}).reason(), Reason::refusedFile);
        EXPECT_EQ(failureOf({"names-partial", name}).reason(), Reason::refusedFile);
        EXPECT_THAT(library(), IsEmpty());
        EXPECT_THAT(audio, IsEmpty());
    }
}

TEST_F(ProcessRendererAudioTests, AFileThatDoesNotExistIsRefused) {
    for (const std::string& name : {std::string("other.wav"), std::string(300, 'x')}) {
        const auto failure = failureOf({"names", name});

        EXPECT_EQ(failure.reason(), Reason::refusedFile);
        EXPECT_THAT(failure.what(), testing::StrEq("The engine named a file that does not exist."));
    }
}

TEST_F(ProcessRendererAudioTests, APartialFileThatIsGoneOrNotWholeYetIsNotReported) {
    EXPECT_EQ(render({"names-partial", "other.wav"}).seconds, 0.5);
    EXPECT_THAT(audio, IsEmpty());
}

TEST_F(ProcessRendererAudioTests, ALinkIsRefused) {
    for (const std::string& target : {outside.string(), std::string("../../outside.wav"), std::string("/dev/zero"),
                                      std::string("nowhere"), std::string("audio.wav")}) {
        SCOPED_TRACE(target);

        EXPECT_EQ(failureOf({"links", target}).reason(), Reason::refusedFile);
        EXPECT_EQ(failureOf({"links-partial", target}).reason(), Reason::refusedFile);
    }
}

TEST_F(ProcessRendererAudioTests, AFileWithASecondNameIsRefused) {
    EXPECT_EQ(failureOf({"hard-links", outside.string()}).reason(), Reason::refusedFile);
}

TEST_F(ProcessRendererAudioTests, WhatIsNoFileIsRefused) {
    EXPECT_EQ(failureOf({"makes-fifo"}).reason(), Reason::refusedFile);
    EXPECT_EQ(failureOf({"makes-folder"}).reason(), Reason::refusedFile);
}

TEST_F(ProcessRendererAudioTests, ALinkInThePlaceOfTheWorkingFolderLeadsNowhere) {
    const auto other = folder.path() / "other";
    const auto precious = folder.putFile("other/precious", "keep me");

    EXPECT_EQ(render({"replaces-folder", other.string()}).seconds, 0.5);

    EXPECT_EQ(folder.content("other/precious"), "keep me");
    // The link is the engine's own doing and harmless; the folder itself is gone wherever it went.
    for (const auto& name : library()) {
        if (name == pieceName()) continue;
        EXPECT_TRUE(std::filesystem::is_symlink(loops / name)) << name;
        std::filesystem::remove(loops / name);
    }
}

TEST_F(ProcessRendererAudioTests, AWorkingFolderThatIsGoneIsAFailure) {
    EXPECT_EQ(failureOf({"removes-folder"}).reason(), Reason::refusedFile);
}

TEST_F(ProcessRendererAudioTests, WhateverElseTheEngineLeavesGoesToo) {
    render({"leaves-temporary-files"});

    EXPECT_THAT(library(), testing::ElementsAre(pieceName()));
}

TEST_F(ProcessRendererAudioTests, TheLengthMustBeExact) {
    for (const std::string& difference :
         {std::string("1"), std::string("-1"), std::string("24000"), std::string("-23999")}) {
        SCOPED_TRACE(difference);

        const auto failure = failureOf({"length", difference});

        EXPECT_EQ(failure.reason(), Reason::wrongAudio);
        EXPECT_THAT(failure.what(), HasSubstr("frames instead of 24000"));
    }
}

TEST_F(ProcessRendererAudioTests, ALieAboutTheLengthIsAFailure) {
    for (const std::string& claim :
         {std::string("0.4999"), std::string("1"), std::string("0"), std::string("-0.5"), std::string("1e300")}) {
        SCOPED_TRACE(claim);

        EXPECT_EQ(failureOf({"says-seconds", claim}).reason(), Reason::wrongAudio);
    }
    EXPECT_EQ(render({"says-seconds", "0.500005"}).seconds, 0.5);  // less than half a frame off is rounding
}

TEST_F(ProcessRendererAudioTests, TheFormatMustBeRight) {
    struct Row {
        std::string rate, channels, text;
    };
    for (const auto& row :
         {Row{"44100", "2", "44100 Hz, 2 channels, 16 bits"}, Row{"48000", "1", "48000 Hz, 1 channel"},
          Row{"48000", "6", "6 channels"}, Row{"96000", "2", "96000 Hz"}}) {
        SCOPED_TRACE(row.text);

        const auto failure = failureOf({"format", row.rate, row.channels});

        EXPECT_EQ(failure.reason(), Reason::wrongAudio);
        EXPECT_THAT(failure.what(), HasSubstr(row.text));
        EXPECT_THAT(failure.what(), HasSubstr("instead of 48000 Hz, 2 channels, 16 bits"));
    }
}

TEST_F(ProcessRendererAudioTests, WhatIsNoWholeAudioIsAFailure) {
    EXPECT_EQ(failureOf({"no-audio"}).reason(), Reason::wrongAudio);
    EXPECT_EQ(failureOf({"cut", "1"}).reason(), Reason::wrongAudio);
    EXPECT_EQ(failureOf({"cut", "96000"}).reason(), Reason::wrongAudio);  // the header alone is left
    EXPECT_EQ(failureOf({"cut", "96044"}).reason(), Reason::wrongAudio);  // nothing is left
    EXPECT_EQ(failureOf({"padded"}).reason(), Reason::wrongAudio);
}

TEST_F(ProcessRendererAudioTests, NumbersAreTakenAsTheyAre) {
    const auto piece = render({"more", R"(,"seamDB":-1.5e2,"brightness":0,"makeupDB":-3,"leadIn":0.5,"other":[1,2])"});

    EXPECT_EQ(piece.seamDB, -150);
    EXPECT_EQ(piece.quality->brightness, 0);
    EXPECT_EQ(piece.quality->makeupDB, -3);
    EXPECT_EQ(piece.leadIn, 0.5);
}

}  // namespace
}  // namespace quillmere::test
