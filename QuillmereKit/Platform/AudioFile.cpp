#include "QuillmereKit/Platform/AudioFile.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

[[noreturn]] void refuse(const std::filesystem::path& file) {
    throw FileError("read", file, make_error_code(FileFault::fileReadCorruptFile));
}

// An MPEG-4 file begins with the length of its file type box and the word "ftyp".
bool isMPEG4(int descriptor, const std::filesystem::path& file) {
    std::array<char, 12> start{};
    const auto count = systemCalls::readUpToAt(descriptor, std::as_writable_bytes(std::span(start)), 0, file);
    return count == start.size() && std::string_view(start.data() + 4, 4) == "ftyp";
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
    LosslessSource(Descriptor source, const std::filesystem::path& path) : file(path), opened(std::move(source)) {
        LosslessInfo info{};
        LosslessReader* handle = nullptr;
        static_cast<void>(require(module.openReader(opened.number(), &handle, &info)));
        reader.reset(handle);
        length = info.frames;
        stored = {.codec = info.isALAC != 0 ? AudioFormat::Codec::alac : AudioFormat::Codec::other,
                  .bitsPerChannel = info.bitsPerChannel,
                  .sampleRate = static_cast<double>(info.sampleRate),
                  .channels = info.channels};
        if (length < 1 || stored.channels < 1 || stored.channels > mostChannels || stored.sampleRate <= 0) refuse(file);
    }

    [[nodiscard]] const AudioFormat& format() const noexcept override { return stored; }
    [[nodiscard]] std::int64_t frames() const noexcept override { return length; }
    std::size_t read(std::span<std::int16_t> samples) override {
        if (stored.codec != AudioFormat::Codec::alac || stored.bitsPerChannel != 16) refuse(file);
        const auto room = static_cast<std::int64_t>(samples.size()) / stored.channels;
        const auto wanted = std::min(room, length - position);
        if (wanted > 0) {
            const auto count = require(module.read(reader.get(), samples.data(), wanted));
            if (count == 0) refuse(file);
            position += count;
            return static_cast<std::size_t>(count);
        }
        // A file that goes on after the frames that it says it has would play differently from what was read.
        if (position == length && !std::exchange(isEndSeen, true)) {
            std::array<std::int16_t, mostChannels> one{};
            if (require(module.read(reader.get(), one.data(), 1)) != 0) refuse(file);
        }
        return 0;
    }

    // The module's result, or the error that it stands for.
    [[nodiscard]] std::int64_t require(std::int64_t result) const {
        if (result >= 0) return result;
        if (result == LosslessModule::badAudio) refuse(file);
        throw FileError("read", file, {static_cast<int>(-result), std::system_category()});
    }

    static constexpr int mostChannels = 8;

    const std::filesystem::path file;
    const Descriptor opened;
    const LosslessModule& module = losslessModule();
    std::unique_ptr<LosslessReader, void (*)(LosslessReader*)> reader{nullptr, module.closeReader};
    AudioFormat stored;
    std::int64_t length = 0;
    std::int64_t position = 0;
    bool isEndSeen = false;
};

AudioFile::AudioFile(const std::filesystem::path& file) : AudioFile(openRegularFile(file, FinalLink::followed), file) {}

AudioFile::AudioFile(Descriptor opened, const std::filesystem::path& file) {
    if (isMPEG4(opened.number(), file)) {
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

std::size_t AudioFile::framesAtATime() const noexcept {
    constexpr std::size_t most = 8192;
    constexpr std::size_t mostSamples = most * 8;
    return std::clamp<std::size_t>(mostSamples / static_cast<std::size_t>(format().channels), 1, most);
}

std::size_t AudioFile::read(std::span<std::int16_t> samples) { return source_->read(samples); }

}  // namespace quillmere
