#include "Renderers/EngineAudio.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "Renderers/EngineFailure.hpp"
#include "Renderers/EngineProtocol.hpp"

namespace quillmere {
namespace {

using engineProtocol::bitsPerSample;
using engineProtocol::channels;
using engineProtocol::sampleRate;

constexpr AudioFormat wantedFormat{AudioFormat::Codec::linearPCM, bitsPerSample, sampleRate, channels};

[[noreturn]] void failAudio(const std::string& text) {
    throw EngineFailure(EngineFailure::Reason::wrongAudio, "The engine's audio file " + text + ".");
}

bool isDamage(const FileError& error) { return error.code() == FileFault::fileReadCorruptFile; }

struct stat statusOf(const Descriptor& file, const std::filesystem::path& shown) {
    struct stat status {};
    if (::fstat(file.number(), &status) != 0) throw FileError("look at", shown, systemCalls::lastError());
    return status;
}

/// Adds the frames from the meter's own count up to `end`.
void measureUpTo(std::int64_t end, WAVFile& audio, LoudnessMeter& meter, const std::stop_token& stop) {
    constexpr std::size_t bufferFrames = 8192;
    std::vector<std::int16_t> samples(bufferFrames * channels);
    std::vector<float> floats(samples.size());
    audio.seek(meter.frames());
    while (meter.frames() < end) {
        if (stop.stop_requested()) throw CancellationError();
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(bufferFrames, end - meter.frames()));
        const std::size_t count = audio.read(std::span(samples).first(wanted * channels)) * channels;
        constexpr float fullScale = 32768.0F;
        std::transform(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(count), floats.begin(),
                       [](std::int16_t sample) { return static_cast<float>(sample) / fullScale; });
        meter.append(std::span(floats).first(count), channels);
    }
}

std::string description(const AudioFormat& format) {
    return std::to_string(static_cast<long long>(format.sampleRate)) + " Hz, " + std::to_string(format.channels) +
           (format.channels == 1 ? " channel, " : " channels, ") + std::to_string(format.bitsPerChannel) +
           (format.codec == AudioFormat::Codec::floatPCM ? " bits floating-point" : " bits");
}

}  // namespace

AudioLoudness measureResult(const Descriptor& file, const std::filesystem::path& shown, std::int64_t frames,
                            const std::stop_token& stop) {
    Descriptor copy(::fcntl(file.number(), F_DUPFD_CLOEXEC, 0));
    if (!copy.isOpen()) throw FileError("open", shown, systemCalls::lastError());
    try {
        WAVFile audio(std::move(copy), shown);
        if (audio.format() != wantedFormat) {
            failAudio("is " + description(audio.format()) + " instead of " + description(wantedFormat));
        }
        if (audio.frames() != frames) {
            failAudio("has " + std::to_string(audio.frames()) + " frames instead of " + std::to_string(frames));
        }
        constexpr std::int64_t mostOtherBytes = std::int64_t{1} << 20;
        constexpr std::int64_t bytesPerFrame = channels * bitsPerSample / 8;
        if (statusOf(file, shown).st_size > frames * bytesPerFrame + mostOtherBytes) {
            failAudio("holds far more than its audio");
        }
        LoudnessMeter meter(channels);
        measureUpTo(frames, audio, meter, stop);
        return meter.measurement().value();  // 16-bit samples are always finite
    } catch (const FileError& error) {
        if (isDamage(error)) failAudio("is not a whole WAV file");
        throw;
    }
}

std::optional<AudioLoudness> PartialMeter::measure(const RenderFolder& folder, const std::string& name,
                                                   const std::stop_token& stop) {
    try {
        auto file = folder.openIfPresent(name);
        if (!file) return std::nullopt;
        const auto status = statusOf(*file, folder.path() / name);
        WAVFile audio(std::move(*file), folder.path() / name);
        if (audio.format() != wantedFormat) return std::nullopt;
        const std::int64_t end = std::min(audio.frames(), frames_);
        const bool isSameFile = status.st_dev == device_ && status.st_ino == inode_;
        if (isSameFile && end == meter_.frames()) return std::nullopt;
        if (!isSameFile || end < meter_.frames()) {
            device_ = status.st_dev;
            inode_ = status.st_ino;
            meter_ = LoudnessMeter(channels);
        }
        measureUpTo(end, audio, meter_, stop);
        return meter_.measurement();
    } catch (const FileError& error) {
        if (isDamage(error)) return std::nullopt;
        throw;
    }
}

}  // namespace quillmere
