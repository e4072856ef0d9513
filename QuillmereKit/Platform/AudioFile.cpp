#include "QuillmereKit/Platform/AudioFile.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"

namespace quillmere {
namespace {

[[noreturn]] void refuse(const std::filesystem::path& file) {
    throw FileError("read", file, make_error_code(FileFault::fileReadCorruptFile));
}

// An MPEG-4 file begins with the length of its file type box and the word "ftyp".
bool isMPEG4(int descriptor) {
    std::array<char, 12> start{};
    const ssize_t count = ::pread(descriptor, start.data(), start.size(), 0);
    return count == static_cast<ssize_t>(start.size()) && std::string_view(start.data() + 4, 4) == "ftyp";
}

}  // namespace

struct AudioFile::Source {
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;
    [[nodiscard]] virtual const AudioFormat& format() const noexcept = 0;
    [[nodiscard]] virtual std::int64_t frames() const noexcept = 0;
    virtual std::size_t read(std::span<std::int16_t> samples) = 0;
};

struct AudioFile::WAVSource final : Source {
    WAVSource(Descriptor opened, const std::filesystem::path& path) : file(path), wav(std::move(opened), path) {}

    [[nodiscard]] const AudioFormat& format() const noexcept override { return wav.format(); }
    [[nodiscard]] std::int64_t frames() const noexcept override { return wav.frames(); }
    std::size_t read(std::span<std::int16_t> samples) override {
        if (wav.format().codec != AudioFormat::Codec::linearPCM || wav.format().bitsPerChannel != 16) refuse(file);
        return wav.read(samples);
    }

    const std::filesystem::path file;
    WAVFile wav;
};

struct AudioFile::LosslessSource final : Source {
    LosslessSource(Descriptor source, const std::filesystem::path& path)
        : file(path), opened(std::move(source)), module(losslessModule()) {
        LosslessInfo info{};
        std::array<char, LosslessModule::messageSize> message{};
        if (module.openReader(opened.number(), &reader, &info, message.data()) < 0) refuse(file);
        length = info.frames;
        stored = {.codec = info.isALAC != 0 ? AudioFormat::Codec::alac : AudioFormat::Codec::other,
                  .bitsPerChannel = info.bitsPerChannel,
                  .sampleRate = static_cast<double>(info.sampleRate),
                  .channels = info.channels};
        if (length < 1 || stored.channels < 1 || stored.sampleRate <= 0) {
            module.closeReader(reader);
            refuse(file);
        }
    }
    ~LosslessSource() override { module.closeReader(reader); }

    [[nodiscard]] const AudioFormat& format() const noexcept override { return stored; }
    [[nodiscard]] std::int64_t frames() const noexcept override { return length; }
    std::size_t read(std::span<std::int16_t> samples) override {
        if (stored.codec != AudioFormat::Codec::alac || stored.bitsPerChannel != 16) refuse(file);
        const auto room = static_cast<std::int64_t>(samples.size()) / stored.channels;
        const auto wanted = std::min(room, length - position);
        if (wanted == 0) return 0;
        std::array<char, LosslessModule::messageSize> message{};
        const auto count = module.read(reader, samples.data(), wanted, message.data());
        if (count <= 0) refuse(file);
        position += count;
        return static_cast<std::size_t>(count);
    }

    const std::filesystem::path file;
    const Descriptor opened;
    const LosslessModule& module;
    LosslessReader* reader = nullptr;
    AudioFormat stored;
    std::int64_t length = 0;
    std::int64_t position = 0;
};

AudioFile::AudioFile(const std::filesystem::path& file) : AudioFile(openRegularFile(file, FinalLink::followed), file) {}

AudioFile::AudioFile(Descriptor opened, const std::filesystem::path& file) {
    if (isMPEG4(opened.number())) {
        source_ = std::make_unique<LosslessSource>(std::move(opened), file);
    } else {
        source_ = std::make_unique<WAVSource>(std::move(opened), file);
    }
}

AudioFile::AudioFile(AudioFile&&) noexcept = default;
AudioFile& AudioFile::operator=(AudioFile&&) noexcept = default;
AudioFile::~AudioFile() = default;

const AudioFormat& AudioFile::format() const noexcept { return source_->format(); }
std::int64_t AudioFile::frames() const noexcept { return source_->frames(); }
std::size_t AudioFile::read(std::span<std::int16_t> samples) { return source_->read(samples); }

}  // namespace quillmere
