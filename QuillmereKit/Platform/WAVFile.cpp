#include "QuillmereKit/Platform/WAVFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <string_view>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

// The tags of "Multimedia Programming Interface and Data Specifications 1.0" and of the later WAVE_FORMAT_EXTENSIBLE.
constexpr std::uint16_t formatPCM = 1;
constexpr std::uint16_t formatFloat = 3;
constexpr std::uint16_t formatExtensible = 0xFFFE;

/// Bytes 2...15 of every sub-format GUID that stands for a plain format tag.
constexpr std::array<std::uint8_t, 14> subFormatTail = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                                        0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

/// A 32-bit size that says "look elsewhere": in "ds64" for RF64, nowhere for a plain file whose writer never came back.
constexpr std::uint32_t unknownSize = 0xFFFFFFFF;

/// More chunks than any writer puts before the audio. Bounds the work on a file of nothing but empty chunks.
constexpr int mostChunks = 1024;

std::uint8_t byteAt(std::span<const std::byte> bytes, std::size_t offset) {
    return static_cast<std::uint8_t>(bytes[offset]);
}

/// A little-endian number.
template <typename Number>
Number numberAt(std::span<const std::byte> bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t index = sizeof(Number); index-- > 0;) value = value << 8 | byteAt(bytes, offset + index);
    return static_cast<Number>(value);
}

std::string_view nameAt(std::span<const std::byte> bytes, std::size_t offset) {
    return {reinterpret_cast<const char*>(bytes.data()) + offset, 4};
}

/// 16-bit samples in the file's byte order to the machine's, or back.
void swapOnBigEndian([[maybe_unused]] std::span<std::int16_t> samples) {
    if constexpr (std::endian::native == std::endian::big) {
        for (auto& sample : samples) {
            const auto bits = static_cast<std::uint16_t>(sample);
            sample = static_cast<std::int16_t>(static_cast<std::uint16_t>(bits << 8 | bits >> 8));
        }
    }
}

}  // namespace

struct WAVFile::State {
    Descriptor descriptor;
    std::filesystem::path file;
    std::vector<std::byte> window;  // the file's beginning as it was at one moment, while a writer may be at work
    AudioFormat format;
    std::uint64_t bytesPerFrame = 0;
    std::uint64_t audioStart = 0;
    std::int64_t frames = 0;
    std::int64_t position = 0;

    [[noreturn]] void fail() const { throw FileError("read", file, FileFault::fileReadCorruptFile); }

    /// Fills `bytes` from the file or fails: whatever is asked for must be there.
    void load(std::span<std::byte> bytes, std::uint64_t offset) const {
        if (offset <= window.size() && bytes.size() <= window.size() - offset) {
            std::copy_n(window.begin() + static_cast<std::ptrdiff_t>(offset), bytes.size(), bytes.begin());
        } else if (systemCalls::readUpToAt(descriptor.number(), bytes, offset, file) != bytes.size()) {
            fail();
        }
    }

    void open() {
        window.resize(4096);
        window.resize(systemCalls::readUpToAt(descriptor.number(), window, 0, file));
        struct stat status {};
        if (::fstat(descriptor.number(), &status) != 0) throw FileError("look at", file, systemCalls::lastError());
        if (!S_ISREG(status.st_mode)) throw FileError("open", file, FileFault::fileNotRegular);
        parse(static_cast<std::uint64_t>(status.st_size));
        window = {};
    }

    void parse(std::uint64_t fileSize) {
        std::array<std::byte, 12> riff;
        load(riff, 0);
        const bool isRF64 = nameAt(riff, 0) == "RF64";
        if ((!isRF64 && nameAt(riff, 0) != "RIFF") || nameAt(riff, 8) != "WAVE") fail();
        std::uint64_t riffSize = numberAt<std::uint32_t>(riff, 4);
        std::uint64_t longDataSize = 0;
        std::uint64_t offset = riff.size();
        if ((riffSize == unknownSize) != isRF64) fail();
        if (isRF64) {
            // "ds64": chunk header, then 64-bit sizes of the file, of the audio and the frame count, and a table.
            std::array<std::byte, 8 + 24> sizes;
            load(sizes, offset);
            const auto size = numberAt<std::uint32_t>(sizes, 4);
            if (nameAt(sizes, 0) != "ds64" || size < 24) fail();
            riffSize = numberAt<std::uint64_t>(sizes, 8);
            longDataSize = numberAt<std::uint64_t>(sizes, 16);
            offset += 8 + std::uint64_t{size} + size % 2;
        }
        if (fileSize < 8 || riffSize > fileSize - 8) fail();
        const std::uint64_t end = riffSize + 8;

        bool hasFormat = false;
        for (int chunk = 0; chunk < mostChunks; ++chunk) {
            std::array<std::byte, 8> header;
            if (offset > end || end - offset < header.size()) fail();
            load(header, offset);
            offset += header.size();
            std::uint64_t size = numberAt<std::uint32_t>(header, 4);
            const bool isAudio = nameAt(header, 0) == "data";
            if (isAudio && isRF64 && size == unknownSize) size = longDataSize;
            if (size > end - offset) fail();
            if (isAudio) {
                if (!hasFormat) fail();
                return setAudio(offset, size);
            }
            if (nameAt(header, 0) == "fmt ") {
                if (std::exchange(hasFormat, true)) fail();
                parseFormat(offset, size);
            }
            offset += size + size % 2;
        }
        fail();
    }

    void parseFormat(std::uint64_t offset, std::uint64_t size) {
        std::array<std::byte, 40> bytes{};
        constexpr std::size_t plainSize = 16;
        if (size < plainSize) fail();
        load(std::span(bytes).first(std::min<std::size_t>(static_cast<std::size_t>(size), bytes.size())), offset);

        auto tag = numberAt<std::uint16_t>(bytes, 0);
        const auto channels = numberAt<std::uint16_t>(bytes, 2);
        const auto sampleRate = numberAt<std::uint32_t>(bytes, 4);
        const auto blockAlign = numberAt<std::uint16_t>(bytes, 12);
        const auto bits = numberAt<std::uint16_t>(bytes, 14);
        if (tag == formatExtensible) {
            const bool isPlainTag = std::ranges::equal(subFormatTail, std::span(bytes).subspan(26), {}, {},
                                                       [](std::byte byte) { return static_cast<std::uint8_t>(byte); });
            if (size < bytes.size() || numberAt<std::uint16_t>(bytes, 16) < 22 || !isPlainTag) fail();
            if (numberAt<std::uint16_t>(bytes, 18) > bits) fail();  // more valid bits than there are bits
            tag = numberAt<std::uint16_t>(bytes, 24);
        }
        const bool isLinear = tag == formatPCM && bits >= 1 && bits <= 64;
        const bool isFloat = tag == formatFloat && (bits == 32 || bits == 64);
        if (!isLinear && !isFloat) fail();
        if (channels == 0 || sampleRate == 0 || blockAlign != channels * ((bits + 7) / 8)) fail();
        format.codec = isLinear ? AudioFormat::Codec::linearPCM : AudioFormat::Codec::floatPCM;
        format.bitsPerChannel = bits;
        format.sampleRate = sampleRate;
        format.channels = channels;
        bytesPerFrame = blockAlign;
    }

    void setAudio(std::uint64_t start, std::uint64_t size) {
        if (size == 0 || size % bytesPerFrame != 0) fail();
        audioStart = start;
        frames = static_cast<std::int64_t>(size / bytesPerFrame);
    }
};

WAVFile::WAVFile(const std::filesystem::path& file) : WAVFile(openRegularFile(file), file) {}

WAVFile::WAVFile(Descriptor opened, std::filesystem::path file) : state_(std::make_unique<State>()) {
    state_->descriptor = std::move(opened);
    state_->file = std::move(file);
    state_->open();
}

WAVFile::WAVFile(WAVFile&&) noexcept = default;
WAVFile::~WAVFile() = default;

const AudioFormat& WAVFile::format() const noexcept { return state_->format; }

std::int64_t WAVFile::frames() const noexcept { return state_->frames; }

std::int64_t WAVFile::position() const noexcept { return state_->position; }

std::size_t WAVFile::read(std::span<std::int16_t> samples) {
    auto& state = *state_;
    precondition(state.format.codec == AudioFormat::Codec::linearPCM && state.format.bitsPerChannel == 16,
                 "Only 16-bit linear PCM can be read as 16-bit samples.");
    const auto channels = static_cast<std::size_t>(state.format.channels);
    const auto left = static_cast<std::uint64_t>(state.frames - state.position);
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, samples.size() / channels));
    if (count == 0) return 0;

    const auto wanted = samples.first(count * channels);
    state.load(std::as_writable_bytes(wanted),
               state.audioStart + static_cast<std::uint64_t>(state.position) * state.bytesPerFrame);
    swapOnBigEndian(wanted);
    state.position += static_cast<std::int64_t>(count);
    return count;
}

void WAVFile::seek(std::int64_t frame) {
    precondition(frame >= 0 && frame <= state_->frames, "A WAV file must be read between its first frame and its end.");
    state_->position = frame;
}

struct WAVWriter::State {
    static constexpr std::size_t headerSize = 44;
    static constexpr std::size_t bufferedBytes = std::size_t{64} * 1024;
    /// What the RIFF header's 32-bit size can still say, the reserved value left out.
    static constexpr std::uint64_t mostAudioBytes = unknownSize - 1 - (headerSize - 8);

    Descriptor descriptor;
    std::filesystem::path file;
    std::uint32_t sampleRate = 0;
    std::uint16_t channels = 0;
    std::uint64_t writtenBytes = 0;  // of audio; what is buffered comes behind
    std::vector<std::int16_t> buffer;

    [[nodiscard]] std::array<std::byte, headerSize> header() const {
        std::array<std::byte, headerSize> bytes{};
        std::size_t offset = 0;
        const auto name = [&](std::string_view text) {
            for (const char character : text) bytes[offset++] = static_cast<std::byte>(character);
        };
        const auto number = [&](std::uint64_t value, int size) {
            for (int index = 0; index < size; ++index)
                bytes[offset++] = static_cast<std::byte>(value >> (8 * index) & 0xFF);
        };
        const std::uint64_t frameBytes = channels * std::uint64_t{2};
        name("RIFF"), number(headerSize - 8 + writtenBytes, 4), name("WAVE");
        name("fmt "), number(16, 4), number(formatPCM, 2), number(channels, 2), number(sampleRate, 4);
        number(sampleRate * frameBytes, 4), number(frameBytes, 2), number(16, 2);
        name("data"), number(writtenBytes, 4);
        return bytes;
    }

    /// Writes at fixed places, so that a failed call can be tried again.
    void flush() {
        swapOnBigEndian(buffer);
        try {
            systemCalls::writeAllAt(descriptor.number(), std::as_bytes(std::span(buffer)), headerSize + writtenBytes,
                                    file);
        } catch (const FileError&) {
            swapOnBigEndian(buffer);
            throw;
        }
        writtenBytes += buffer.size() * sizeof(std::int16_t);
        buffer.clear();
    }

    void writeHeader() { systemCalls::writeAllAt(descriptor.number(), header(), 0, file); }
};

WAVWriter::WAVWriter(const std::filesystem::path& file, int sampleRate, int channels)
    : state_(std::make_unique<State>()) {
    constexpr int mostChannels = 32767;
    precondition(sampleRate >= 1, "The sample rate of a WAV file must be 1 or more.");
    precondition(channels >= 1 && channels <= mostChannels, "A WAV file must have 1 to 32767 channels.");
    precondition(std::int64_t{sampleRate} * channels * 2 < unknownSize,
                 "The byte rate of a WAV file must fit in 32 bits.");
    state_->file = file;
    state_->sampleRate = static_cast<std::uint32_t>(sampleRate);
    state_->channels = static_cast<std::uint16_t>(channels);
    constexpr mode_t mode = 0644;
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const char* const text = systemCalls::pathText(file, "create");
    state_->descriptor = Descriptor(systemCalls::uninterrupted([&] { return ::open(text, flags, mode); }));
    if (!state_->descriptor.isOpen()) throw FileError("create", file, systemCalls::lastError());
    try {
        state_->writeHeader();
    } catch (const FileError&) {
        ::unlink(file.c_str());  // just made, and nobody will finish it
        throw;
    }
}

WAVWriter::~WAVWriter() = default;

void WAVWriter::write(std::span<const std::int16_t> samples) {
    auto& state = *state_;
    precondition(state.descriptor.isOpen(), "A finished WAV file must not be written to.");
    precondition(samples.size() % state.channels == 0, "Whole frames must be written to a WAV file.");
    const std::uint64_t bytes = state.writtenBytes + (state.buffer.size() + samples.size()) * sizeof(std::int16_t);
    if (bytes > State::mostAudioBytes) {
        throw FileError("write", state.file, std::make_error_code(std::errc::file_too_large));
    }
    state.buffer.insert(state.buffer.end(), samples.begin(), samples.end());
    if (state.buffer.size() * sizeof(std::int16_t) >= State::bufferedBytes) state.flush();
}

void WAVWriter::flushHeader() {
    precondition(state_->descriptor.isOpen(), "A finished WAV file must not be written to.");
    state_->flush();
    state_->writeHeader();  // after the audio, so that it never promises what is not there
}

void WAVWriter::finish() {
    flushHeader();
    Descriptor last = std::move(state_->descriptor);  // closed in any case: a failed sync is final
    systemCalls::sync(last.number(), state_->file);
    if (const auto error = last.close()) throw FileError("close", state_->file, error);
}

}  // namespace quillmere
