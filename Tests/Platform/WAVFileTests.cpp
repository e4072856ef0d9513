#include "QuillmereKit/Platform/WAVFile.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;
using testing::ElementsAre;
using testing::ElementsAreArray;
using Codec = AudioFormat::Codec;

std::string little(std::uint64_t value, int size) {
    std::string bytes;
    for (int index = 0; index < size; ++index) bytes += static_cast<char>(value >> (8 * index) & 0xFF);
    return bytes;
}

std::string chunk(const std::string& name, const std::string& content) {
    return name + little(content.size(), 4) + content + (content.size() % 2 == 1 ? std::string(1, '\0') : "");
}

std::string riff(const std::string& chunks) { return "RIFF" + little(4 + chunks.size(), 4) + "WAVE" + chunks; }

/// The first 16 bytes of a format chunk; a block align of 0 stands for the right one.
std::string format(int tag, int channels, std::uint32_t rate, int bits, int blockAlign = 0) {
    const int align = blockAlign != 0 ? blockAlign : channels * ((bits + 7) / 8);
    const auto number = [](int value) { return static_cast<std::uint64_t>(value); };
    return little(number(tag), 2) + little(number(channels), 2) + little(rate, 4) +
           little(std::uint64_t{rate} * number(align), 4) + little(number(align), 2) + little(number(bits), 2);
}

std::string extensible(int tag, int channels, int bits, int validBits, const std::string& guidTail) {
    return format(0xFFFE, channels, 48000, bits) + little(22, 2) + little(static_cast<std::uint64_t>(validBits), 2) +
           little(3, 4) + little(static_cast<std::uint64_t>(tag), 2) + guidTail;
}

const std::string guidTail("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
const std::string plainFormat = chunk("fmt ", format(1, 2, 48000, 16));
const std::string fourFrames = little(0x0004'0003'0002'0001, 8) + little(0x8000'7FFF'FFFF'0000, 8);
const std::vector<std::int16_t> fourFramesSamples = {1, 2, 3, 4, 0, -1, 32767, -32768};

struct WAVFileTests : testing::Test {
    TemporaryFolder folder;

    [[nodiscard]] WAVFile opened(const std::string& bytes) const { return WAVFile(folder.putFile("audio.wav", bytes)); }

    /// The error of opening a file with these bytes; no error is an empty code.
    [[nodiscard]] std::error_code errorOf(const std::string& bytes) const {
        try {
            static_cast<void>(opened(bytes));
            return {};
        } catch (const FileError& error) {
            EXPECT_EQ(error.path(), folder.path() / "audio.wav");
            return error.code();
        }
    }
};

TEST_F(WAVFileTests, ReadsFormatLengthAndSamples) {
    auto file = opened(riff(plainFormat + chunk("data", fourFrames)));

    EXPECT_EQ(file.format(), (AudioFormat{Codec::linearPCM, 16, 48000, 2}));
    EXPECT_EQ(file.frames(), 4);
    EXPECT_EQ(file.position(), 0);
    std::vector<std::int16_t> samples(8);
    EXPECT_EQ(file.read(samples), 4U);
    EXPECT_EQ(samples, fourFramesSamples);
    EXPECT_EQ(file.position(), 4);
    EXPECT_EQ(file.read(samples), 0U);
}

TEST_F(WAVFileTests, ReadsWholeFramesOnlyAndFromAnyPlace) {
    auto file = opened(riff(plainFormat + chunk("data", fourFrames)));
    std::vector<std::int16_t> samples(5);

    EXPECT_EQ(file.read(samples), 2U);
    EXPECT_THAT(samples, ElementsAre(1, 2, 3, 4, 0));
    file.seek(3);
    EXPECT_EQ(file.read(samples), 1U);
    EXPECT_EQ(samples[0], 32767);
    file.seek(0);
    EXPECT_EQ(file.read(std::span(samples).first(1)), 0U);
    EXPECT_EQ(file.read({}), 0U);
    EXPECT_EQ(file.position(), 0);
    file.seek(4);
    EXPECT_EQ(file.read(samples), 0U);
}

TEST_F(WAVFileTests, UnknownChunksAreSkippedOddOnesWithTheirPadding) {
    const auto list = chunk("LIST", "odd") + chunk("junk", std::string(10'000, 'x')) + chunk("bext", "");

    auto file = opened(riff(list + plainFormat + list + chunk("data", fourFrames) + list));

    EXPECT_EQ(file.frames(), 4);
    std::vector<std::int16_t> samples(8);
    EXPECT_EQ(file.read(samples), 4U);
    EXPECT_EQ(samples, fourFramesSamples);
}

TEST_F(WAVFileTests, KnowsTheFormsOfPCM) {
    const auto formatOf = [&](const std::string& content, std::size_t frameBytes) {
        auto file = opened(riff(chunk("fmt ", content) + chunk("data", std::string(3 * frameBytes, 'x'))));
        EXPECT_EQ(file.frames(), 3);
        return file.format();
    };
    EXPECT_EQ(formatOf(format(1, 1, 44100, 8), 1), (AudioFormat{Codec::linearPCM, 8, 44100, 1}));
    EXPECT_EQ(formatOf(format(1, 2, 48000, 24), 6), (AudioFormat{Codec::linearPCM, 24, 48000, 2}));
    EXPECT_EQ(formatOf(format(1, 2, 48000, 20), 6), (AudioFormat{Codec::linearPCM, 20, 48000, 2}));
    EXPECT_EQ(formatOf(format(3, 6, 192000, 32), 24), (AudioFormat{Codec::floatPCM, 32, 192000, 6}));
    EXPECT_EQ(formatOf(format(3, 2, 48000, 64) + little(0, 2), 16), (AudioFormat{Codec::floatPCM, 64, 48000, 2}));
    EXPECT_EQ(formatOf(extensible(1, 2, 16, 16, guidTail), 4), (AudioFormat{Codec::linearPCM, 16, 48000, 2}));
    EXPECT_EQ(formatOf(extensible(1, 2, 16, 0, guidTail), 4), (AudioFormat{Codec::linearPCM, 16, 48000, 2}));
    EXPECT_EQ(formatOf(extensible(3, 2, 32, 32, guidTail), 8), (AudioFormat{Codec::floatPCM, 32, 48000, 2}));
}

TEST_F(WAVFileTests, ReadsFilesBeyondFourGigabytes) {
    constexpr std::uint64_t frames = 1'200'000'000;
    const auto head = "RF64" + little(0xFFFFFFFF, 4) + "WAVE" +
                      chunk("ds64", little(4 + 36 + 24 + 8 + frames * 4, 8) + little(frames * 4, 8) +
                                        little(frames, 8) + little(0, 4)) +
                      plainFormat + "data" + little(0xFFFFFFFF, 4);
    const auto name = folder.putFile("audio.wav", head);
    std::filesystem::resize_file(name, head.size() + frames * 4);
    {
        const Descriptor out(::open(name.c_str(), O_WRONLY | O_CLOEXEC));
        const auto last = static_cast<off_t>(head.size() + (frames - 4) * 4);
        ASSERT_EQ(::pwrite(out.number(), fourFrames.data(), fourFrames.size(), last), ssize_t{16});
    }

    WAVFile file(name);

    EXPECT_EQ(file.frames(), std::int64_t{frames});
    file.seek(std::int64_t{frames} - 4);
    std::vector<std::int16_t> samples(100);
    EXPECT_EQ(file.read(samples), 4U);
    EXPECT_THAT(std::span(samples).first(8), ElementsAreArray(fourFramesSamples));

    std::filesystem::resize_file(name, head.size() + frames * 4 - 1);
    EXPECT_THROW(WAVFile{name}, FileError);
}

TEST_F(WAVFileTests, AShortRF64MayUseTheShortDataSize) {
    const auto sizes = little(4 + 36 + 24 + 8 + 16, 8) + little(16, 8) + little(4, 8) + little(0, 4);
    const auto rest = "WAVE" + chunk("ds64", sizes) + plainFormat + chunk("data", fourFrames);

    EXPECT_EQ(opened("RF64" + little(0xFFFFFFFF, 4) + rest).frames(), 4);
    EXPECT_EQ(errorOf("RF64" + little(rest.size(), 4) + rest), FileFault::fileReadCorruptFile);
    EXPECT_EQ(errorOf("RIFF" + little(0xFFFFFFFF, 4) + rest), FileFault::fileReadCorruptFile);
}

TEST_F(WAVFileTests, BytesBehindTheAudioAreAllowed) {
    const auto whole = riff(plainFormat + chunk("data", fourFrames));

    EXPECT_EQ(opened(whole + "anything at all").frames(), 4);
    EXPECT_EQ(opened(whole + std::string(100'000, '\0')).frames(), 4);
}

TEST_F(WAVFileTests, NoBeginningOfAFilePassesAsTheFile) {
    const auto whole = riff(chunk("LIST", "odd") + plainFormat + chunk("data", fourFrames));

    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(errorOf(whole.substr(0, size)), FileFault::fileReadCorruptFile) << size << " bytes";
    }
    EXPECT_EQ(errorOf(whole), std::error_code());
}

TEST_F(WAVFileTests, TheAudioIsLookedForIn1024Chunks) {
    const auto withOthers = [](int others) {
        std::string chunks;
        for (int index = 0; index < others; ++index) chunks += chunk("junk", "");
        return riff(chunks + plainFormat + chunk("data", fourFrames) + chunks);
    };
    EXPECT_EQ(errorOf(withOthers(1022)), std::error_code());
    EXPECT_EQ(errorOf(withOthers(1023)), make_error_code(FileFault::fileReadCorruptFile));
}

TEST_F(WAVFileTests, WhatIsNoWholeWAVFileIsCorrupt) {
    const auto data = chunk("data", fourFrames);
    const auto withFormat = [&](const std::string& content) { return riff(chunk("fmt ", content) + data); };
    std::string manyChunks;
    for (int index = 0; index < 5000; ++index) manyChunks += chunk("junk", "");
    const auto longData = little(4 + 36 + 24 + 8 + 16, 8);
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"another container", "FORM" + little(100, 4) + "AIFF" + std::string(100, 'x')},
        {"another byte order", "RIFX" + riff(plainFormat + data).substr(4)},
        {"another form", "RIFF" + little(100, 4) + "AVI " + std::string(100, 'x')},
        {"a text", std::string(1000, 'x')},
        {"nothing but zeros", std::string(1000, '\0')},
        {"a container of no chunks", riff("")},
        {"no format", riff(data)},
        {"the format behind the audio", riff(data + plainFormat)},
        {"no audio", riff(plainFormat)},
        {"no audio but other chunks", riff(plainFormat + chunk("LIST", "text"))},
        {"no frames", riff(plainFormat + chunk("data", ""))},
        {"half a frame", riff(plainFormat + chunk("data", fourFrames + "xx"))},
        {"two formats", riff(plainFormat + plainFormat + data)},
        {"a writer that never came back",
         "RIFF" + little(0, 4) + "WAVE" + plainFormat + "data" + little(0, 4) + fourFrames},
        {"a streaming writer",
         "RIFF" + little(0xFFFFFFFF, 4) + "WAVE" + plainFormat + "data" + little(0xFFFFFFFF, 4) + fourFrames},
        {"an unknown audio size", riff(plainFormat + "data" + little(0xFFFFFFFF, 4) + fourFrames)},
        {"an audio size beyond the container", riff(plainFormat + "data" + little(20, 4) + fourFrames) + "xxxx"},
        {"a chunk size beyond the container", riff("LIST" + little(0xFFFFFFF0, 4) + plainFormat + data)},
        {"a short format", withFormat(format(1, 2, 48000, 16).substr(0, 14))},
        {"no channels", withFormat(format(1, 0, 48000, 16, 4))},
        {"no sample rate", withFormat(format(1, 2, 0, 16))},
        {"no bits", withFormat(format(1, 2, 48000, 0, 4))},
        {"a block align that is too small", withFormat(format(1, 2, 48000, 16, 2))},
        {"a block align that is too large", withFormat(format(1, 2, 48000, 16, 8))},
        {"65-bit samples", riff(chunk("fmt ", format(1, 1, 48000, 65)) + chunk("data", std::string(9, 'x')))},
        {"16-bit floating point", withFormat(format(3, 2, 48000, 16))},
        {"ADPCM", withFormat(format(2, 2, 48000, 4, 4))},
        {"MPEG layer 3", withFormat(format(0x55, 2, 48000, 16, 4))},
        {"a short extensible format", withFormat(extensible(1, 2, 16, 16, guidTail).substr(0, 38))},
        {"an extensible format without extension", withFormat(format(0xFFFE, 2, 48000, 16))},
        {"a foreign sub-format", withFormat(extensible(1, 2, 16, 16, std::string(14, 'x')))},
        {"more valid bits than bits", withFormat(extensible(1, 2, 16, 24, guidTail))},
        {"an unknown extensible tag", withFormat(extensible(2, 2, 16, 16, guidTail))},
        {"endless empty chunks", riff(manyChunks + plainFormat + data)},
        {"RF64 without its sizes", "RF64" + little(0xFFFFFFFF, 4) + "WAVE" + plainFormat + data},
        {"RF64 with short sizes",
         "RF64" + little(0xFFFFFFFF, 4) + "WAVE" + chunk("ds64", little(60, 8)) + plainFormat + data},
        {"RF64 larger than the file",
         "RF64" + little(0xFFFFFFFF, 4) + "WAVE" +
             chunk("ds64", little(~std::uint64_t{0}, 8) + little(16, 8) + little(4, 8) + little(0, 4)) + plainFormat +
             data},
        {"RF64 with more audio than file",
         "RF64" + little(0xFFFFFFFF, 4) + "WAVE" +
             chunk("ds64", longData + little(~std::uint64_t{3}, 8) + little(4, 8) + little(0, 4)) + plainFormat +
             "data" + little(0xFFFFFFFF, 4) + fourFrames},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(errorOf(bytes), FileFault::fileReadCorruptFile);
    }
}

TEST_F(WAVFileTests, NoChangedByteOfAHeaderIsEverMoreAudioThanTheFileHolds) {
    const auto whole = riff(chunk("fmt ", extensible(1, 2, 16, 16, guidTail)) + chunk("data", fourFrames));
    for (std::size_t place = 0; place < whole.size() - fourFrames.size(); ++place) {
        for (int value = 0; value < 256; ++value) {
            auto bytes = whole;
            bytes[place] = static_cast<char>(value);
            Descriptor memory(::memfd_create("audio", MFD_CLOEXEC));
            ASSERT_EQ(::pwrite(memory.number(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
            try {
                WAVFile file(std::move(memory), "audio");
                EXPECT_LE(file.frames(), std::int64_t{16}) << "byte " << place << " is " << value;
                if (file.format().codec != Codec::linearPCM || file.format().bitsPerChannel != 16) continue;
                std::vector<std::int16_t> samples(64);
                EXPECT_EQ(static_cast<std::int64_t>(file.read(samples)), file.frames());
            } catch (const FileError& error) {
                EXPECT_EQ(error.code(), FileFault::fileReadCorruptFile);
            }
        }
    }
}

TEST_F(WAVFileTests, AFileCutOffWhileItIsReadIsCorruptAndThePositionStays) {
    const auto name = folder.putFile("audio.wav", riff(plainFormat + chunk("data", std::string(100'000, 'x'))));
    WAVFile file(name);
    std::filesystem::resize_file(name, 50'000);
    std::vector<std::int16_t> samples(50'000);

    try {
        static_cast<void>(file.read(samples));
        ADD_FAILURE() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), FileFault::fileReadCorruptFile);
    }
    EXPECT_EQ(file.position(), 0);
}

TEST_F(WAVFileTests, OnlyRegularFilesAreOpened) {
    std::filesystem::create_symlink(folder.putFile("real.wav", riff(plainFormat + chunk("data", fourFrames))),
                                    folder.path() / "link.wav");
    std::filesystem::create_directory(folder.path() / "folder.wav");
    ASSERT_EQ(::mkfifo((folder.path() / "fifo.wav").c_str(), 0600), 0);

    for (const char* name : {"link.wav", "folder.wav", "fifo.wav"}) {
        SCOPED_TRACE(name);
        try {
            const WAVFile file(folder.path() / name);
            ADD_FAILURE() << "no error";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), FileFault::fileNotRegular);
        }
    }
    try {
        const WAVFile file(folder.path() / "missing.wav");
        ADD_FAILURE() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
}

TEST_F(WAVFileTests, AnOpenFileIsTakenOver) {
    const auto name = folder.putFile("audio.wav", riff(plainFormat + chunk("data", fourFrames)));
    WAVFile first(openRegularFile(name), name);
    WAVFile file = std::move(first);
    std::filesystem::remove(name);

    std::vector<std::int16_t> samples(8);
    EXPECT_EQ(file.read(samples), 4U);
    EXPECT_EQ(samples, fourFramesSamples);

    const path fifo = folder.path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_THROW(WAVFile(Descriptor(::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)), fifo), FileError);
}

TEST(WAVFileDeathTest, MisuseStopsTheProcess) {
    const TemporaryFolder folder;
    WAVFile wide(folder.putFile("24.wav", riff(chunk("fmt ", format(1, 2, 48000, 24)) + chunk("data", "123456"))));
    std::vector<std::int16_t> samples(2);

    EXPECT_DEATH(static_cast<void>(wide.read(samples)), "Only 16-bit linear PCM");
    EXPECT_DEATH(wide.seek(-1), "between its first frame and its end");
    EXPECT_DEATH(wide.seek(2), "between its first frame and its end");
}

struct WAVWriterTests : testing::Test {
    TemporaryFolder folder;
    path file = folder.path() / "audio.wav";
    std::vector<std::int16_t> samples = std::vector<std::int16_t>(2 * 100'003);

    WAVWriterTests() {
        for (std::size_t index = 0; index < samples.size(); ++index) {
            samples[index] = static_cast<std::int16_t>(index * 2'654'435'761U >> 7);
        }
    }

    [[nodiscard]] std::vector<std::int16_t> readBack() const {
        WAVFile reader(file);
        std::vector<std::int16_t> read(static_cast<std::size_t>(reader.frames() * reader.format().channels));
        EXPECT_EQ(static_cast<std::int64_t>(reader.read(read)), reader.frames());
        return read;
    }
};

TEST_F(WAVWriterTests, WritesThePlainFormByteForByte) {
    WAVWriter writer(file, 48000, 2);
    writer.write(fourFramesSamples);
    writer.finish();

    EXPECT_EQ(folder.content("audio.wav"), riff(plainFormat + chunk("data", fourFrames)));
}

TEST_F(WAVWriterTests, WhatIsWrittenInAnyPiecesIsReadBack) {
    WAVWriter writer(file, 44100, 2);
    std::size_t done = 0;
    for (std::size_t frames = 0; done < samples.size(); frames = frames * 3 + 1) {
        const auto piece = std::span(samples).subspan(done).first(std::min(frames * 2, samples.size() - done));
        writer.write(piece);
        done += piece.size();
    }
    writer.finish();

    EXPECT_EQ(readBack(), samples);
    EXPECT_EQ(WAVFile(file).format(), (AudioFormat{Codec::linearPCM, 16, 44100, 2}));
}

TEST_F(WAVWriterTests, AfterEachFlushTheFileIsAWholeFileOfTheFramesSoFar) {
    WAVWriter writer(file, 48000, 2);
    EXPECT_THROW(WAVFile{file}, FileError);
    writer.flushHeader();
    EXPECT_THROW(WAVFile{file}, FileError);

    writer.write(std::span(samples).first(2'000));
    writer.flushHeader();
    EXPECT_EQ(WAVFile(file).frames(), 1'000);
    WAVFile early(file);
    writer.write(std::span(samples).subspan(2'000));
    EXPECT_EQ(WAVFile(file).frames(), 1'000);
    writer.flushHeader();
    EXPECT_EQ(readBack(), samples);

    std::vector<std::int16_t> read(samples.size());
    EXPECT_EQ(early.read(read), 1'000U);
    writer.finish();
    EXPECT_EQ(readBack(), samples);
}

TEST_F(WAVWriterTests, WithoutFinishTheFileIsAsTheLastFlushLeftIt) {
    {
        WAVWriter writer(file, 48000, 1);
        writer.write(std::span(samples).first(10));
        writer.flushHeader();
        writer.write(std::span(samples).first(10));
    }

    EXPECT_EQ(WAVFile(file).frames(), 10);
}

TEST_F(WAVWriterTests, NeverWritesOverAnything) {
    folder.putFile("audio.wav", "precious");
    std::filesystem::create_symlink("nowhere.wav", folder.path() / "link.wav");

    for (const auto& taken : {file, folder.path() / "link.wav"}) {
        try {
            const WAVWriter writer(taken, 48000, 2);
            ADD_FAILURE() << "no error";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), std::errc::file_exists);
        }
    }
    EXPECT_EQ(folder.content("audio.wav"), "precious");
    EXPECT_THAT(folder.names(), ElementsAre("audio.wav", "link.wav"));
}

TEST_F(WAVWriterTests, AFullDiskIsAnErrorAndTheFlushedPartStaysWhole) {
    WAVWriter writer(file, 48000, 2);
    writer.write(std::span(samples).first(2'000));
    writer.flushHeader();
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const rlimit lowered{100'000, old.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &lowered);

    EXPECT_THROW(
        {
            writer.write(std::span(samples).subspan(2'000));
            writer.finish();
        },
        FileError);
    EXPECT_EQ(WAVFile(file).frames(), 1'000);

    ::setrlimit(RLIMIT_FSIZE, &old);
    writer.finish();
    EXPECT_EQ(readBack(), samples);
}

TEST_F(WAVWriterTests, ALargerFileThanTheFormCanHoldIsRefused) {
    WAVWriter writer(file, 48000, 32767);
    // More zeros than the form can hold, as address space only: they are refused before they are looked at.
    constexpr std::size_t count = std::size_t{32767} * 100'000;
    void* const memory = ::mmap(nullptr, count * 2, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    const std::span<const std::int16_t> zeros(static_cast<const std::int16_t*>(memory), count);

    try {
        writer.write(zeros);
        ADD_FAILURE() << "no error";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), std::errc::file_too_large);
    }
    writer.write(zeros.first(32767));
    ::munmap(memory, count * 2);
    writer.finish();
    EXPECT_EQ(WAVFile(file).frames(), 1);
}

TEST(WAVWriterDeathTest, MisuseStopsTheProcess) {
    const TemporaryFolder folder;
    const auto file = folder.path() / "audio.wav";
    const std::vector<std::int16_t> samples(3);

    EXPECT_DEATH(WAVWriter(file, 0, 2), "sample rate");
    EXPECT_DEATH(WAVWriter(file, 48000, 0), "channels");
    EXPECT_DEATH(WAVWriter(file, 48000, 32768), "channels");
    EXPECT_DEATH(WAVWriter(file, 2'000'000'000, 2), "byte rate");
    WAVWriter writer(file, 48000, 2);
    EXPECT_DEATH(writer.write(samples), "Whole frames");
    writer.finish();
    EXPECT_DEATH(writer.write({}), "finished");
    EXPECT_DEATH(writer.finish(), "finished");
}

/// An independent reader and writer of the same files.
struct WAVPeerTests : WAVWriterTests {
    void writeWithPeer(int peerFormat, int channels) const {
        SF_INFO info{};
        info.samplerate = 48000;
        info.channels = channels;
        info.format = peerFormat;
        SNDFILE* const peer = ::sf_open(file.c_str(), SFM_WRITE, &info);
        ASSERT_NE(peer, nullptr) << ::sf_strerror(nullptr);
        ::sf_set_string(peer, SF_STR_TITLE, "odd");
        const auto frames = static_cast<sf_count_t>(samples.size()) / channels;
        EXPECT_EQ(::sf_writef_short(peer, samples.data(), frames), frames);
        ::sf_close(peer);
    }
};

TEST_F(WAVPeerTests, APeerReadsWhatTheWriterWrote) {
    WAVWriter writer(file, 48000, 2);
    writer.write(samples);
    writer.finish();

    SF_INFO info{};
    SNDFILE* const peer = ::sf_open(file.c_str(), SFM_READ, &info);
    ASSERT_NE(peer, nullptr) << ::sf_strerror(nullptr);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(info.samplerate, 48000);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.frames, static_cast<sf_count_t>(samples.size() / 2));
    std::vector<std::int16_t> read(samples.size());
    EXPECT_EQ(::sf_readf_short(peer, read.data(), info.frames), info.frames);
    ::sf_close(peer);
    EXPECT_EQ(read, samples);
}

TEST_F(WAVPeerTests, WhatAPeerWroteIsReadInEveryForm) {
    for (const int container : {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64}) {
        SCOPED_TRACE(container);
        writeWithPeer(container | SF_FORMAT_PCM_16, 2);
        EXPECT_EQ(readBack(), samples);
    }
    writeWithPeer(SF_FORMAT_WAV | SF_FORMAT_PCM_24, 1);
    EXPECT_EQ(WAVFile(file).format(), (AudioFormat{Codec::linearPCM, 24, 48000, 1}));
    EXPECT_EQ(WAVFile(file).frames(), static_cast<std::int64_t>(samples.size()));
    writeWithPeer(SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2);
    EXPECT_EQ(WAVFile(file).format(), (AudioFormat{Codec::floatPCM, 32, 48000, 2}));
    writeWithPeer(SF_FORMAT_WAV | SF_FORMAT_ULAW, 2);
    EXPECT_THROW(WAVFile{file}, FileError);
}

}  // namespace
}  // namespace quillmere::test
