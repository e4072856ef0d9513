#include "QuillmereKit/Platform/AudioFile.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;
using Codec = AudioFormat::Codec;

struct AudioFileTests : testing::Test {
    TemporaryFolder folder;
    std::vector<std::int16_t> samples = tones(1, 2, 20'001);  // neither whole frames of the codec nor whole buffers

    /// All that a file says it holds, read in buffers of this many frames.
    static std::vector<std::int16_t> allOf(const path& file, std::size_t frames = 8192) {
        AudioFile audio(file);
        const auto channels = static_cast<std::size_t>(audio.format().channels);
        std::vector<std::int16_t> all;
        std::vector<std::int16_t> buffer(frames * channels);
        while (const auto count = audio.read(buffer)) {
            all.insert(all.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count * channels));
        }
        EXPECT_EQ(all.size(), static_cast<std::size_t>(audio.frames()) * channels);
        EXPECT_EQ(audio.read(buffer), 0U);
        return all;
    }

    [[nodiscard]] path alac(const std::string& name = "audio.m4a") const {
        writeALAC(folder.path() / name, samples);
        return folder.path() / name;
    }

    /// The error of reading a whole file; no error is an empty code.
    static std::error_code errorOf(const path& file) {
        try {
            static_cast<void>(allOf(file));
            return {};
        } catch (const FileError& error) {
            EXPECT_EQ(error.path(), file);
            return error.code();
        }
    }

    [[nodiscard]] std::error_code errorOfBytes(const std::string& bytes) const {
        return errorOf(folder.putFile("bytes.m4a", bytes));
    }
};

TEST_F(AudioFileTests, ALosslessFileGivesBackTheSamplesThatWentIn) {
    const auto file = alac();

    EXPECT_EQ(AudioFile(file).format(), (AudioFormat{Codec::alac, 16, 48000, 2}));
    EXPECT_EQ(AudioFile(file).frames(), 20'001);
    for (const std::size_t frames : {1U, 100U, 4096U, 8192U, 30'000U}) {
        SCOPED_TRACE(frames);
        EXPECT_EQ(allOf(file, frames), samples);
    }
}

TEST_F(AudioFileTests, LosslessFilesOfEveryLengthAroundAFrameAreWhole) {
    for (const std::size_t frames : {1U, 2U, 4095U, 4096U, 4097U, 131'071U, 131'072U, 131'073U}) {
        SCOPED_TRACE(frames);
        const auto wanted = tones(frames, 2, frames);
        writeALAC(folder.path() / "audio.m4a", wanted);
        EXPECT_EQ(allOf(folder.path() / "audio.m4a"), wanted);
    }
}

TEST_F(AudioFileTests, SilenceNoiseAndFullScaleSurviveTheLosslessFile) {
    std::vector<std::int16_t> extremes(10'000, 0);
    for (std::size_t i = 3000; i < extremes.size(); ++i) extremes[i] = i % 2 == 0 ? 32767 : -32768;
    std::uint32_t state = 1;
    for (std::size_t i = 6000; i < extremes.size(); ++i) {
        state = state * 1664525 + 1013904223;
        extremes[i] = static_cast<std::int16_t>(state >> 16);
    }
    writeALAC(folder.path() / "audio.m4a", extremes);

    EXPECT_EQ(allOf(folder.path() / "audio.m4a"), extremes);
}

TEST_F(AudioFileTests, OtherRatesAndMonoAreRead) {
    const auto mono = tones(2, 1, 5000);
    writeALAC(folder.path() / "audio.m4a", mono, 44100, 1);

    EXPECT_EQ(AudioFile(folder.path() / "audio.m4a").format(), (AudioFormat{Codec::alac, 16, 44100, 1}));
    EXPECT_EQ(allOf(folder.path() / "audio.m4a"), mono);
}

TEST_F(AudioFileTests, TheFirstBytesSayWhatAFileIsNotItsName) {
    const auto wav = folder.putFile("audio.m4a", wavBytes(samples));
    EXPECT_EQ(AudioFile(wav).format(), (AudioFormat{Codec::linearPCM, 16, 48000, 2}));
    EXPECT_EQ(allOf(wav), samples);

    EXPECT_EQ(AudioFile(alac("audio.wav")).format().codec, Codec::alac);
}

TEST_F(AudioFileTests, TwoThreadsWriteTheSameBytesAsOne) {
    for (const std::size_t frames : {5U, 4096U, 4097U, 100'000U, 131'072U, 140'000U, 700'001U}) {
        SCOPED_TRACE(frames);
        const auto wanted = tones(frames, 2, frames);
        writeALAC(folder.path() / "one.m4a", wanted, 48000, 2, 1);
        writeALAC(folder.path() / "two.m4a", wanted, 48000, 2, 2);
        EXPECT_TRUE(folder.content("one.m4a") == folder.content("two.m4a"));
    }
}

TEST_F(AudioFileTests, WhatIsNotOrNoLongerALosslessFileIsCorrupt) {
    const auto whole = (static_cast<void>(alac()), folder.content("audio.m4a"));
    const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
    ASSERT_EQ(errorOfBytes(whole), std::error_code{});
    ASSERT_EQ(errorOfBytes(indexFirst(whole)), std::error_code{});

    EXPECT_EQ(errorOfBytes(""), corrupt);
    EXPECT_EQ(errorOfBytes("ftyp"), corrupt);
    EXPECT_EQ(errorOfBytes(whole.substr(0, 12)), corrupt);
    EXPECT_EQ(errorOfBytes(whole.substr(0, 40)), corrupt);
    EXPECT_EQ(errorOfBytes(whole.substr(0, whole.size() / 2)), corrupt);  // the index stands at the end
    const auto movable = indexFirst(whole);
    for (const std::size_t missing : {std::size_t{1}, std::size_t{100}, movable.size() / 2}) {
        SCOPED_TRACE(missing);
        EXPECT_EQ(errorOfBytes(movable.substr(0, movable.size() - missing)), corrupt);
    }
    EXPECT_EQ(errorOfBytes(movable.substr(0, movable.find("mdat") + 4)), corrupt);
    EXPECT_EQ(errorOfBytes(patched(whole, "stsd", "alac", "mp4a")), corrupt);
    EXPECT_EQ(errorOfBytes(patched(whole, "stsd", "alac", "sowt")), corrupt);
    EXPECT_EQ(errorOfBytes(patched(whole, "hdlr", "soun", "vide")), corrupt);
}

TEST_F(AudioFileTests, AnotherCodecIsSaidButNotRead) {
    const auto whole = (static_cast<void>(alac()), folder.content("audio.m4a"));
    const auto file = folder.putFile("pcm.m4a", patched(whole, "stsd", "alac", "sowt"));

    EXPECT_EQ(AudioFile(file).format().codec, Codec::other);
}

TEST_F(AudioFileTests, ALengthThatTheAudioDoesNotHaveIsCorrupt) {
    const auto whole = (static_cast<void>(alac()), folder.content("audio.m4a"));
    const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
    const auto length = bigEndian(20'001);

    // Shorter: the file would play on after what was read. Longer: the audio ends too early.
    EXPECT_EQ(errorOfBytes(patched(whole, "mdhd", length, bigEndian(20'000))), corrupt);
    EXPECT_EQ(errorOfBytes(patched(whole, "mdhd", length, bigEndian(4096))), corrupt);
    EXPECT_EQ(errorOfBytes(patched(whole, "mdhd", length, bigEndian(0))), corrupt);
    EXPECT_EQ(errorOfBytes(patched(patched(whole, "mdhd", length, bigEndian(20'002)), "stts", bigEndian(20'001 % 4096),
                                   bigEndian(20'001 % 4096 + 1))),
              corrupt);
}

TEST_F(AudioFileTests, ClaimsOfGiganticFramesTakeNoMemory) {
    const auto whole = (static_cast<void>(alac()), folder.content("audio.m4a"));
    const auto setting = bigEndian(4096);  // the first number of the decoder's settings

    EXPECT_EQ(errorOfBytes(patched(whole, "alac", setting, bigEndian(0x00FF'FFFF))),
              make_error_code(FileFault::fileReadCorruptFile));
    EXPECT_EQ(errorOfBytes(patched(whole, "alac", setting, bigEndian(0))),
              make_error_code(FileFault::fileReadCorruptFile));
}

TEST_F(AudioFileTests, NoChangedByteOfALosslessFileDoesAnyHarm) {
    samples = tones(3, 2, 600);
    const auto whole = (static_cast<void>(alac()), folder.content("audio.m4a"));

    for (std::size_t i = 0; i < whole.size(); ++i) {
        auto bytes = whole;
        bytes[i] = static_cast<char>(bytes[i] ^ (i % 3 == 0 ? '\x01' : i % 3 == 1 ? '\x80' : '\xFF'));
        const auto file = folder.putFile("bytes.m4a", bytes);
        try {
            static_cast<void>(allOf(file, 100));
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), make_error_code(FileFault::fileReadCorruptFile)) << "byte " << i;
        }
    }
}

TEST_F(AudioFileTests, OnlyRegularFilesAreOpened) {
    ASSERT_EQ(::mkfifo((folder.path() / "fifo").c_str(), 0600), 0);

    EXPECT_EQ(errorOf(folder.path()), make_error_code(FileFault::fileNotRegular));
    EXPECT_EQ(errorOf(folder.path() / "fifo"), make_error_code(FileFault::fileNotRegular));
    EXPECT_EQ(errorOf("/dev/null"), make_error_code(FileFault::fileNotRegular));
    EXPECT_EQ(errorOf(folder.path() / "missing"), std::errc::no_such_file_or_directory);
}

TEST_F(AudioFileTests, AUsersLinkIsFollowed) {
    std::filesystem::create_symlink(alac(), folder.path() / "link");

    EXPECT_EQ(allOf(folder.path() / "link"), samples);
}

TEST_F(AudioFileTests, SamplesOfOtherSizesAreRefused) {
    const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
    EXPECT_EQ(errorOfBytes(wavBytes(1, 24, 48000, 2, std::string(600, 'x'))), corrupt);
    EXPECT_EQ(errorOfBytes(wavBytes(1, 8, 48000, 2, std::string(600, 'x'))), corrupt);
    EXPECT_EQ(errorOfBytes(wavBytes(3, 32, 48000, 2, std::string(800, '\0'))), corrupt);
}

}  // namespace
}  // namespace quillmere::test
