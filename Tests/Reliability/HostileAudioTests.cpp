#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"
#include "Tests/Support/AudioFiles.hpp"
#include "Tests/Support/PeakMemory.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

// What the readers of audio make of files that claim far more than they hold.

namespace quillmere::test {
namespace {

std::string numbers(const std::vector<std::uint32_t>& values) {
    std::string bytes;
    for (const auto value : values) bytes += bigEndian(value);
    return bytes;
}

std::string zeros(std::size_t count) { return std::string(count, '\0'); }

std::string box(const std::string& name, const std::string& content) {
    return bigEndian(static_cast<std::uint32_t>(content.size()) + 8) + name + content;
}

/// A box with version and flags.
std::string fullBox(const std::string& name, const std::string& content, std::uint32_t flags = 0) {
    return box(name, bigEndian(flags) + content);
}

std::string table(const std::string& name, const std::vector<std::vector<std::uint32_t>>& entries) {
    std::string content = bigEndian(static_cast<std::uint32_t>(entries.size()));
    for (const auto& entry : entries) content += numbers(entry);
    return fullBox(name, content);
}

std::string repeated(const std::string& text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (; count > 0; --count) result += text;
    return result;
}

/// An MPEG-4 file of stereo at 48 kHz, stored as Apple Lossless. Whatever it claims, it has 16 bytes of audio, and as
/// many more as one likes.
struct Movie {
    std::vector<std::vector<std::uint32_t>> runs = {{1, 1, 1}};  ///< First chunk, samples in each, description.
    std::vector<std::uint32_t> chunks = {40};
    std::uint32_t sampleSize = 1;
    std::uint32_t samples = 1;
    std::uint32_t frames = 4096;
    std::uint32_t samplesOfAFrame = 4096;
    std::string moreInDescription;
    std::string moreInTable;
    std::string edits;
    std::string moreInTrack;
    std::string moreTracks;
    std::string moreInMovie;
    std::string references = fullBox("url ", "", 1);
    std::string after;
    std::size_t audioBytes = 16;

    [[nodiscard]] std::string settings() const {
        return fullBox("alac", bigEndian(samplesOfAFrame) + std::string("\0\x10\x28\x0a\x0e\x02\0\xff", 8) + zeros(8) +
                                   bigEndian(48000));
    }

    static std::string fileType() { return box("ftyp", "M4A " + zeros(4) + "isom"); }

    [[nodiscard]] std::string track(std::uint32_t number = 1) const {
        const auto form =
            zeros(7) + "\x01" + zeros(9) + "\x02" + zeros(1) + "\x10" + zeros(4) + bigEndian(48000U << 16);
        const auto description = fullBox("stsd", bigEndian(1) + box("alac", form + settings() + moreInDescription));
        const auto sampleTable =
            box("stbl", description + table("stts", {{samples, 4096}}) + table("stsc", runs) +
                            fullBox("stsz", numbers({sampleSize, samples})) +
                            fullBox("stco", bigEndian(static_cast<std::uint32_t>(chunks.size())) + numbers(chunks)) +
                            moreInTable);
        const auto media =
            box("mdia", fullBox("mdhd", numbers({0, 0, 48000, frames}) + zeros(4)) +
                            fullBox("hdlr", zeros(4) + "soun" + zeros(13)) +
                            box("minf", fullBox("smhd", zeros(4)) +
                                            box("dinf", fullBox("dref", bigEndian(1) + references)) + sampleTable));
        return box("trak",
                   fullBox("tkhd", numbers({0, 0, number, 0, 4096}) + zeros(60), 7) + edits + media + moreInTrack);
    }

    [[nodiscard]] std::string bytes() const {
        const auto header = fullBox("mvhd", numbers({0, 0, 48000, 4096, 0x10000}) + zeros(76));
        return fileType() + box("mdat", zeros(audioBytes)) + box("moov", header + track() + moreTracks + moreInMovie) +
               after;
    }
};

std::string editList(std::size_t count, std::uint32_t length) {
    return box("edts", table("elst", std::vector<std::vector<std::uint32_t>>(count, {length, 0, 0x10000})));
}

std::string fragment(std::uint32_t samples) {
    return box("moof", box("traf", fullBox("tfhd", numbers({1, 4096, 1}), 0x18) + fullBox("trun", bigEndian(samples))));
}

/// What a fragmented file says in front.
Movie fragmented() {
    Movie movie;
    movie.runs = {};
    movie.chunks = {};
    movie.samples = 0;
    movie.moreInMovie = box("mvex", fullBox("trex", numbers({1, 1, 4096, 1, 0})));
    return movie;
}

const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);

struct HostileInputAudioTests : testing::Test {
    TemporaryFolder folder;

    static void SetUpTestSuite() {
        static_cast<void>(losslessModule());  // not what is measured
    }

    [[nodiscard]] FileURL file(const std::string& bytes) const {
        return FileURL::fromPath(folder.putFile("audio", bytes));
    }

    static std::error_code errorOf(const FileURL& url) {
        try {
            static_cast<void>(AudioPCM::digest(url));
            return {};
        } catch (const FileError& error) {
            return error.code();
        }
    }

    /// Whether the tables of a file are taken at all.
    [[nodiscard]] bool opens(const std::string& bytes) const {
        try {
            static_cast<void>(AudioFile(file(bytes).path()));
            return true;
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), corrupt);
            return false;
        }
    }

    [[nodiscard]] std::size_t peakOfReading(const std::string& bytes) const {
        const auto url = file(bytes);
        // A sanitizer surrounds what is taken, and keeps for a while what was given back.
        return peakOf([&] { static_cast<void>(errorOf(url)); }) / (isSanitized ? 4 : 1);
    }
};

TEST_F(HostileInputAudioTests, ClaimsOfMoreThanAFileHoldsAreRefusedAndCostNoMemory) {
    constexpr std::uint32_t millions = 40'000'000;
    std::vector<std::pair<std::string, std::string>> all;
    const auto with = [&](const std::string& name, const auto& change) {
        Movie movie;
        change(movie);
        all.emplace_back(name, movie.bytes());
    };
    const auto claimMillions = [&](Movie& movie) {
        movie.runs = {{1, millions, 1}};
        movie.samples = millions;
    };
    with("samples of one size", claimMillions);
    with("samples with a table", [&](Movie& movie) {
        claimMillions(movie);
        movie.sampleSize = 0;
    });
    with("samples in few chunks", [&](Movie& movie) {
        movie.runs = {{1, 2'000'000'000, 1}};
        movie.chunks = {40, 40, 40, 40};
    });
    with("edits that repeat the audio", [&](Movie& movie) {
        movie.runs = {{1, 4000, 1}};
        movie.samples = 4000;
        movie.edits = editList(4000, 4000 * 4096);
    });
    with("tracks", [&](Movie& movie) {
        claimMillions(movie);
        for (std::uint32_t number = 2; number < 7; ++number) movie.moreTracks += movie.track(number);
    });
    with("a fragment", [&](Movie& movie) {
        movie = fragmented();
        movie.after = fragment(millions);
    });
    with("places in no table", [&](Movie& movie) {
        movie.samples = millions;
        movie.moreInTable = fullBox("co64", bigEndian(millions));
        movie.chunks = {};
    });

    for (const auto& [name, bytes] : all) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(opens(bytes));
        EXPECT_LT(peakOfReading(bytes), 8 * mebibyte);
    }
}

// A demuxer would take these tables wherever they lie.
TEST_F(HostileInputAudioTests, ClaimsInOtherPlacesAreNotLookedAt) {
    constexpr std::uint32_t millions = 40'000'000;
    const auto tables = table("stts", {{millions, 4096}}) + table("stsc", {{1, millions, 1}}) +
                        fullBox("stsz", numbers({1, millions})) + fullBox("trun", bigEndian(millions));
    Movie claiming;
    claiming.samples = millions;
    claiming.runs = {{1, millions, 1}};
    const auto movie = box("moov", claiming.track());
    std::vector<std::pair<std::string, std::string>> all;
    const auto with = [&](const std::string& name, std::string Movie::*place, const std::string& what) {
        Movie changed;
        changed.*place += what;
        all.emplace_back(name, changed.bytes());
    };
    with("in the description of the samples", &Movie::moreInDescription, tables);
    with("in a list in the description", &Movie::moreInDescription, box("wave", tables));
    with("in a list that begins in the middle", &Movie::moreInDescription,
         box("wave", bigEndian(8 + static_cast<std::uint32_t>(tables.size())) + "name" + tables));
    with("a second time", &Movie::moreInTable, tables);
    with("in the track", &Movie::moreInTrack, tables);
    with("in the list of edits", &Movie::edits, box("edts", tables));
    with("in the movie", &Movie::moreInMovie, tables);
    with("in the user's data", &Movie::moreInMovie, box("udta", tables + box("meta", tables)));
    with("in a fragment", &Movie::after, box("moof", tables));
    with("at the end", &Movie::after, tables);
    with("in another track", &Movie::moreTracks, claiming.track(2));
    with("in another movie", &Movie::after, movie);
    with("in a hidden movie", &Movie::after, box("hoov", movie.substr(8)));
    with("in what is free", &Movie::after, box("free", fullBox("mvhd", zeros(96)) + claiming.track()));

    for (const auto& [name, bytes] : all) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(opens(bytes));
        EXPECT_LT(peakOfReading(bytes), 8 * mebibyte);
    }
}

TEST_F(HostileInputAudioTests, OneBoxOrSampleForEightBytesIsTakenAndOneMoreIsNot) {
    constexpr std::uint64_t boxes = 20;
    Movie movie;
    movie.audioBytes = 8000;
    const auto size = movie.bytes().size();
    const auto most = static_cast<std::uint32_t>(size / 8 + 64 - boxes);
    for (const std::uint32_t more : {0U, 1U}) {
        SCOPED_TRACE(more);
        movie.samples = most + more;
        movie.runs = {{1, most, 1}};
        EXPECT_EQ(opens(movie.bytes()), more == 0);
        movie.samples = most;
        movie.runs = {{1, most + more, 1}};
        EXPECT_EQ(opens(movie.bytes()), more == 0);
    }
}

TEST_F(HostileInputAudioTests, EachEditCountsTheSamplesAgain) {
    Movie movie;
    movie.samples = 50;
    movie.runs = {{1, 50, 1}};
    for (const std::size_t edits : {1U, 9U, 100U}) {
        SCOPED_TRACE(edits);
        movie.edits = editList(edits, 50 * 4096);
        // Each edit brings 12 bytes, and so room for 1.5 samples.
        EXPECT_EQ(opens(movie.bytes()), edits == 1);
    }
    const auto pause = std::vector<std::uint32_t>{4096, 0xFFFF'FFFF, 0x10000};
    movie.edits = box("edts", table("elst", std::vector(100, pause)));
    EXPECT_TRUE(opens(movie.bytes()));
}

// The decoder takes memory for a whole frame before it has seen one.
TEST_F(HostileInputAudioTests, AFrameMayHave65536SamplesAndNotOneMore) {
    constexpr std::uint32_t most = 65'536;
    Movie movie;
    for (const std::uint32_t samples : {1U, most}) {
        SCOPED_TRACE(samples);
        movie.samplesOfAFrame = samples;
        EXPECT_TRUE(opens(movie.bytes()));
        EXPECT_LT(peakOfReading(movie.bytes()), 8 * mebibyte);
    }
    for (const std::uint32_t samples : {0U, most + 1, 4096U * 4096U, 0x7FFF'FFFFU, 0xFFFF'FFFFU}) {
        SCOPED_TRACE(samples);
        movie.samplesOfAFrame = samples;
        EXPECT_FALSE(opens(movie.bytes()));
        EXPECT_LT(peakOfReading(movie.bytes()), 8 * mebibyte);
    }
}

TEST_F(HostileInputAudioTests, MemoryFollowsTheSizeOfTheFile) {
    constexpr std::size_t size = 2 * mebibyte;
    constexpr std::uint32_t most = size / 8 - 100;
    std::vector<std::pair<std::string, Movie>> all;
    {
        Movie movie;
        movie.runs = {{1, most, 1}};
        movie.samples = most;
        movie.audioBytes = size;
        all.emplace_back("samples", movie);
        movie.runs = {{1, most / 2000, 1}};
        movie.samples = most / 2000;
        movie.edits = editList(2000, most);
        all.emplace_back("edits", movie);
        movie = fragmented();
        movie.audioBytes = size;
        movie.after = fragment(most);
        all.emplace_back("a large fragment", movie);
        movie.audioBytes = 16;
        movie.after = repeated(fragment(1), size / fragment(1).size());
        all.emplace_back("many fragments", movie);
        movie.after = repeated(box("moof", ""), most);
        all.emplace_back("empty fragments", movie);
        movie.after = repeated(box("what", ""), most);
        all.emplace_back("unknown boxes", movie);
    }
    for (const auto& [name, movie] : all) {
        SCOPED_TRACE(name);
        const auto bytes = movie.bytes();
        EXPECT_TRUE(opens(bytes));
        // A sanitizer keeps what was freed for a while.
        EXPECT_LT(peakOfReading(bytes), 16 * bytes.size());
    }
}

TEST_F(HostileInputAudioTests, PacketsThatLieOverEachOtherAreRefusedBeforeTheyAreLongerThanTheFile) {
    const auto samples = tones(1, 2, 320);
    writeALAC(folder.path() / "one", samples);
    const auto whole = folder.content("one");
    const auto start = whole.find("mdat") + 4;
    const auto packet = whole.substr(start, whole.find("moov") - 4 - start);
    constexpr std::size_t claimed = 2000;
    Movie movie;
    movie.samples = claimed;
    movie.frames = claimed * 320;
    movie.sampleSize = static_cast<std::uint32_t>(packet.size());
    const auto chunk = static_cast<std::uint32_t>(Movie::fileType().size() + 8);
    movie.chunks = std::vector<std::uint32_t>(claimed, chunk);
    movie.audioBytes = 2 * claimed * 8;  // room for so many samples, not for so many packets
    const auto place = file(movie.bytes().replace(chunk, packet.size(), packet)).path();

    AudioFile audio(place);
    std::vector<std::int16_t> buffer(samples.size());
    std::size_t frames = 0;
    try {
        while (const auto count = audio.read(buffer)) frames += count;
        FAIL() << "read to its end";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), corrupt);
    }
    EXPECT_GE(frames, 320U) << "not one packet was read";
    EXPECT_LE(frames, std::filesystem::file_size(place) / packet.size() * 320);
}

TEST_F(HostileInputAudioTests, WhatIsNotNeededToPlayMayBeAnything) {
    const auto samples = tones(1, 2, 20'001);
    writeALAC(folder.path() / "plain", samples);
    const auto whole = folder.content("plain");
    const auto digest = hexadecimal(SHA256::digest(littleEndian(samples)));
    constexpr std::uint32_t millions = 40'000'000;
    const auto tables = fullBox("stsz", numbers({1, millions})) + table("stsc", {{1, millions, 1}}) + "rest";

    EXPECT_EQ(AudioPCM::digest(file(whole)), digest);
    EXPECT_EQ(AudioPCM::digest(file(whole + box("free", tables))), digest);
    EXPECT_EQ(AudioPCM::digest(file(whole + box("meta", tables))), digest);
    EXPECT_EQ(AudioPCM::digest(file(whole + tables.substr(0, tables.size() - 4))), digest);
    EXPECT_EQ(AudioPCM::digest(file(whole + box("moov", tables))), digest);
    EXPECT_EQ(AudioPCM::digest(file(patched(whole, "moov", "udta", "trak"))), digest);
}

TEST_F(HostileInputAudioTests, BoxesThatDoNotFitIntoEachOtherAreRefused) {
    const auto whole = Movie().bytes();
    ASSERT_TRUE(opens(whole));
    const auto sizeOf = [&](const std::string& name) { return whole.substr(whole.find(name) - 4, 4); };
    for (const std::string name : {"moov", "trak", "mdia", "minf", "stbl", "stsd", "stsz", "tkhd", "hdlr"}) {
        SCOPED_TRACE(name);
        const auto named = sizeOf(name) + name;
        EXPECT_FALSE(opens(patched(whole, "", named, bigEndian(0x7FFF'FFFF) + name)));
        EXPECT_FALSE(opens(patched(whole, "", named, bigEndian(7) + name)));
        EXPECT_FALSE(opens(patched(whole, "", named, bigEndian(1) + name)));
    }
    EXPECT_FALSE(opens(whole + "1234567")) << "a rest that is no box";
    EXPECT_TRUE(opens(whole + zeros(4)));
    EXPECT_FALSE(opens(whole + zeros(3)));
    // As long as the letters are that tags of another kind begin with.
    EXPECT_FALSE(opens("ID3\x04" + whole.substr(4)));
}

TEST_F(HostileInputAudioTests, TablesThatContradictThemselvesAreRefused) {
    const auto opensWith = [&](const std::vector<std::vector<std::uint32_t>>& runs) {
        Movie movie;
        movie.samples = 3;
        movie.chunks = {40, 40, 40};
        movie.runs = runs;
        return opens(movie.bytes());
    };
    EXPECT_TRUE(opensWith({{1, 1, 1}}));
    EXPECT_TRUE(opensWith({{1, 1, 1}, {3, 1, 1}}));
    EXPECT_FALSE(opensWith({{0, 1, 1}}));
    EXPECT_FALSE(opensWith({{4, 1, 1}}));
    EXPECT_FALSE(opensWith({{1, 0, 1}}));
    EXPECT_FALSE(opensWith({{1, 1, 0}}));
    EXPECT_FALSE(opensWith({{1, 0x8000'0000, 1}}));
    EXPECT_FALSE(opensWith({{2, 1, 1}, {2, 1, 1}}));
    EXPECT_FALSE(opensWith({{2, 1, 1}, {1, 1, 1}}));

    Movie movie;
    movie.edits = box("edts", fullBox("elst", numbers({0, 4096, 0, 0x10000})));
    EXPECT_FALSE(opens(movie.bytes())) << "more edits than are counted";
}

TEST_F(HostileInputAudioTests, AudioInAnotherFileIsRefused) {
    Movie movie;
    movie.references = fullBox("alis", zeros(200));
    EXPECT_FALSE(opens(movie.bytes()));
    movie.references = fullBox("alis", "", 1);  // in this file
    EXPECT_TRUE(opens(movie.bytes()));
}

TEST_F(HostileInputAudioTests, AWAVFileOfManyChannelsCostsNoMoreThanOneOfFew) {
    for (const int channels : {9, 1000, 32'767, 65'535}) {
        SCOPED_TRACE(channels);
        for (const int bits : {16, 8}) {
            if (channels * bits / 8 > 65'535) continue;  // no format says so
            const auto bytes = wavBytes(1, bits, 1, channels, zeros(static_cast<std::size_t>(channels * bits / 8)));
            EXPECT_LT(peakOfReading(bytes), 16 * mebibyte);
        }
    }
}

TEST_F(HostileInputAudioTests, AWAVFileOfManyChannelsHasItsDigest) {
    for (const int channels : {8, 9, 1000, 32'767}) {
        SCOPED_TRACE(channels);
        std::vector<std::int16_t> samples(static_cast<std::size_t>(channels) * 3);
        std::iota(samples.begin(), samples.end(), static_cast<std::int16_t>(0));
        const auto url = file(wavBytes(1, 16, 1, channels, littleEndian(samples)));
        EXPECT_EQ(AudioPCM::digest(url), hexadecimal(SHA256::digest(littleEndian(samples))));
    }
}

TEST_F(HostileInputAudioTests, ABufferHolds8192FramesOfUpToEightChannelsAndFewerOfMore) {
    const auto framesOf = [&](int channels) {
        const auto url = file(wavBytes(1, 8, 1, channels, zeros(static_cast<std::size_t>(channels))));
        return AudioFile(url.path()).framesAtATime();
    };
    EXPECT_EQ(framesOf(1), 8192U);
    EXPECT_EQ(framesOf(2), 8192U);
    EXPECT_EQ(framesOf(8), 8192U);
    EXPECT_EQ(framesOf(9), 7281U);
    EXPECT_EQ(framesOf(32'768), 2U);
    EXPECT_EQ(framesOf(65'535), 1U);
}

}  // namespace
}  // namespace quillmere::test
