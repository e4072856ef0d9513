#include "QuillmereKit/Library/AudioPCM.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QuillmereKit/Platform/SHA256.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

struct AudioPCMTests : testing::Test {
    TemporaryFolder folder;
    std::vector<std::int16_t> samples = tones(1, 2, 20'001);

    [[nodiscard]] FileURL wav(const std::string& bytes) const {
        return FileURL::fromPath(folder.putFile("audio.wav", bytes));
    }

    static std::error_code errorOf(const FileURL& url) {
        try {
            static_cast<void>(AudioPCM::digest(url));
            return {};
        } catch (const FileError& error) {
            return error.code();
        }
    }
};

TEST_F(AudioPCMTests, TheDigestIsThatOfTheSamplesLeastSignificantByteFirst) {
    // "printf '\1\0\2\0\3\0\4\0\0\0\377\377\377\177\0\200' | sha256sum"
    EXPECT_EQ(AudioPCM::digest(wav(wavBytes(std::vector<std::int16_t>{1, 2, 3, 4, 0, -1, 32767, -32768}))),
              "2d006c0c3b6223ce49e8367859cdb8df69186e646cb476e52a0a4a6ffae4c051");
}

TEST_F(AudioPCMTests, LengthsAroundTheBufferAreDigestedWhole) {
    for (const std::size_t frames : {1U, 8191U, 8192U, 8193U, 16384U, 20'001U}) {
        SCOPED_TRACE(frames);
        const auto wanted = tones(frames, 2, frames);
        EXPECT_EQ(AudioPCM::digest(wav(wavBytes(wanted))), hexadecimal(SHA256::digest(littleEndian(wanted))));
    }
}

TEST_F(AudioPCMTests, OneChangedSampleChangesTheDigestOneMoreFrameToo) {
    const auto digest = AudioPCM::digest(wav(wavBytes(samples)));
    auto changed = samples;
    changed[31'234] ^= 1;
    auto longer = samples;
    longer.insert(longer.end(), 2, 0);

    EXPECT_NE(AudioPCM::digest(wav(wavBytes(changed))), digest);
    EXPECT_NE(AudioPCM::digest(wav(wavBytes(longer))), digest);
}

TEST_F(AudioPCMTests, WhatSurroundsTheAudioDoesNotCount) {
    const auto plain = wavBytes(samples);
    const auto digest = AudioPCM::digest(wav(plain));
    const auto longer = bigEndian(static_cast<std::uint32_t>(plain.size()) - 8);
    std::string size(longer.rbegin(), longer.rend());
    const auto grown = [&](std::uint32_t more) {
        auto bytes = bigEndian(static_cast<std::uint32_t>(plain.size()) - 8 + more);
        return std::string(bytes.rbegin(), bytes.rend());
    };

    EXPECT_EQ(AudioPCM::digest(wav(patched(plain, "RIFF", size, grown(12)) + std::string("junk\x04\0\0\0abcd", 12))),
              digest);
    EXPECT_EQ(AudioPCM::digest(wav(patched(patched(plain, "RIFF", size, grown(12)), "WAVE", "fmt ",
                                           std::string("junk\x04\0\0\0abcdfmt ", 16)))),
              digest);
}

TEST_F(AudioPCMTests, MonoAndOtherRatesAreDigestedAsTheyAre) {
    const auto mono = tones(2, 1, 9000);
    EXPECT_EQ(AudioPCM::digest(wav(wavBytes(mono, 44100, 1))), hexadecimal(SHA256::digest(littleEndian(mono))));
}

TEST_F(AudioPCMTests, ShortEmptyOrForeignAudioIsCorruptAndHasNoDigest) {
    const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
    const auto whole = wavBytes(samples);

    EXPECT_EQ(errorOf(wav("")), corrupt);
    EXPECT_EQ(errorOf(wav(whole.substr(0, 30))), corrupt);
    EXPECT_EQ(errorOf(wav(whole.substr(0, 44))), corrupt);
    EXPECT_EQ(errorOf(wav(whole.substr(0, whole.size() - 1))), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(std::vector<std::int16_t>{}))), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(1, 24, 48000, 2, std::string(600, 'x')))), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(3, 32, 48000, 2, std::string(800, 'x')))), corrupt);
    EXPECT_EQ(errorOf(wav("This is no audio, but quite some text that goes on for a while.")), corrupt);
}

TEST_F(AudioPCMTests, AFileThatShrinksWhileItIsReadIsCorrupt) {
    const auto url = wav(wavBytes(samples));
    AudioFile file(url.path());
    std::filesystem::resize_file(url.path(), 1000);

    try {
        static_cast<void>(AudioPCM::digest(file));
        FAIL() << "a digest of what is not there";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), make_error_code(FileFault::fileReadCorruptFile));
    }
}

TEST_F(AudioPCMTests, AMissingFileIsTheSystemsError) {
    EXPECT_EQ(errorOf(FileURL::fromPath(folder.path() / "missing.wav")), std::errc::no_such_file_or_directory);
    EXPECT_EQ(errorOf(FileURL::fromPath(folder.path())), make_error_code(FileFault::fileNotRegular));
}

TEST_F(AudioPCMTests, ACancelledDigestIsACancellation) {
    std::stop_source stop;
    stop.request_stop();

    EXPECT_THROW(static_cast<void>(AudioPCM::digest(wav(wavBytes(samples)), stop.get_token())), CancellationError);
}

}  // namespace
}  // namespace quillmere::test
