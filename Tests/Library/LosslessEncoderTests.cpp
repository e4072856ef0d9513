#include "QuillmereKit/Library/LosslessEncoder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

struct LosslessEncoderTests : testing::Test {
    TemporaryFolder folder;
    std::vector<std::int16_t> samples = tones(1, 2, 200'001);
    FileURL target = FileURL::fromPath(folder.path() / "audio.m4a");

    [[nodiscard]] FileURL wav(const std::string& bytes) const {
        return FileURL::fromPath(folder.putFile("audio.wav", bytes));
    }

    static std::error_code errorOf(const FileURL& from, const FileURL& to) {
        try {
            encodeALAC(from, to);
            return {};
        } catch (const FileError& error) {
            return error.code();
        }
    }
};

TEST_F(LosslessEncoderTests, TheDigestsOfAWAVFileAndItsEncodingAreTheSame) {
    const auto source = wav(wavBytes(samples));

    encodeALAC(source, target);

    EXPECT_EQ(AudioPCM::digest(target), AudioPCM::digest(source));
    const AudioFile file(target.path());
    EXPECT_EQ(file.format(), (AudioFormat{AudioFormat::Codec::alac, 16, 48000, 2}));
    EXPECT_EQ(file.frames(), 200'001);
    EXPECT_LT(std::filesystem::file_size(target.path()), std::filesystem::file_size(source.path()));
}

TEST_F(LosslessEncoderTests, OneChangedSampleChangesTheDigestOfTheEncoding) {
    encodeALAC(wav(wavBytes(samples)), target);
    const auto digest = AudioPCM::digest(target);
    samples[123'456] ^= 1;
    std::filesystem::remove(target.path());
    encodeALAC(wav(wavBytes(samples)), target);

    EXPECT_NE(AudioPCM::digest(target), digest);
}

TEST_F(LosslessEncoderTests, TheSameAudioGivesTheSameFile) {
    const auto source = wav(wavBytes(samples));
    encodeALAC(source, target);
    alacEncoder()(source, FileURL::fromPath(folder.path() / "again.m4a"));

    EXPECT_TRUE(folder.content("audio.m4a") == folder.content("again.m4a"));
}

TEST_F(LosslessEncoderTests, MonoAndOtherRatesAreEncodedToo) {
    const auto mono = tones(2, 1, 30'000);
    const auto source = wav(wavBytes(mono, 44100, 1));

    encodeALAC(source, target);

    EXPECT_EQ(AudioPCM::digest(target), AudioPCM::digest(source));
    EXPECT_EQ(AudioFile(target.path()).format(), (AudioFormat{AudioFormat::Codec::alac, 16, 44100, 1}));
}

TEST_F(LosslessEncoderTests, OtherSourcesAreRefusedAndLeaveNothing) {
    const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
    EXPECT_EQ(errorOf(wav(wavBytes(1, 24, 48000, 2, std::string(600, 'x'))), target), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(3, 32, 48000, 2, std::string(800, '\0'))), target), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(tones(1, 6, 100), 48000, 6)), target), corrupt);
    EXPECT_EQ(errorOf(wav(wavBytes(samples).substr(0, 1000)), target), corrupt);
    EXPECT_EQ(errorOf(wav("no audio"), target), corrupt);
    EXPECT_EQ(errorOf(FileURL::fromPath(folder.path() / "missing.wav"), target), std::errc::no_such_file_or_directory);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"audio.wav"});
}

TEST_F(LosslessEncoderTests, ALosslessFileIsNoSource) {
    writeALAC(folder.path() / "audio.wav", samples);

    EXPECT_EQ(errorOf(FileURL::fromPath(folder.path() / "audio.wav"), target),
              make_error_code(FileFault::fileReadCorruptFile));
}

TEST_F(LosslessEncoderTests, NothingIsEverWrittenOver) {
    const auto source = wav(wavBytes(samples));
    folder.putFile("audio.m4a", "precious");
    std::filesystem::create_symlink("elsewhere", folder.path() / "link.m4a");

    EXPECT_EQ(errorOf(source, target), std::errc::file_exists);
    EXPECT_EQ(errorOf(source, FileURL::fromPath(folder.path() / "link.m4a")), std::errc::file_exists);
    EXPECT_EQ(errorOf(source, FileURL::fromPath(folder.path() / "missing/audio.m4a")),
              std::errc::no_such_file_or_directory);
    EXPECT_EQ(folder.content("audio.m4a"), "precious");
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "elsewhere"));
}

TEST_F(LosslessEncoderTests, CancellingLeavesNoFile) {
    std::stop_source stop;
    stop.request_stop();

    EXPECT_THROW(encodeALAC(wav(wavBytes(samples)), target, stop.get_token()), CancellationError);
    EXPECT_THROW(alacEncoder(stop.get_token())(wav(wavBytes(samples)), target), CancellationError);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"audio.wav"});
}

}  // namespace
}  // namespace quillmere::test
