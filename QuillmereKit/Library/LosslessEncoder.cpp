#include "QuillmereKit/Library/LosslessEncoder.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/PageAligned.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

// Throws if the module reports a failure.
void require(std::int32_t result, const std::filesystem::path& file) {
    if (result >= 0) return;
    const auto error = result == LosslessModule::badAudio ? make_error_code(FileFault::fileWriteUnknown)
                                                          : std::error_code(-result, std::system_category());
    throw FileError("encode", file, error);
}

void encode(AudioFile& audio, int descriptor, const std::filesystem::path& file, const std::stop_token& stop) {
    constexpr std::int32_t threads = 2;
    constexpr std::size_t framesAtATime = 8192;
    const LosslessModule& module = losslessModule();
    const AudioFormat& format = audio.format();
    LosslessWriter* opened = nullptr;
    const auto rate = static_cast<std::int32_t>(format.sampleRate);
    require(module.openWriter(descriptor, rate, format.channels, threads, &opened), file);
    const std::unique_ptr<LosslessWriter, void (*)(LosslessWriter*)> writer(opened, module.closeWriter);

    PageAligned<std::int16_t> samples(framesAtATime * static_cast<std::size_t>(format.channels));
    while (true) {
        if (stop.stop_requested()) throw CancellationError();
        const std::size_t frames = audio.read(samples);
        if (frames == 0) break;
        require(module.write(writer.get(), samples.data(), static_cast<std::int64_t>(frames)), file);
    }
    require(module.finish(writer.get()), file);
}

}  // namespace

void encodeALAC(const FileURL& source, const FileURL& destination, const std::stop_token& stop) {
    AudioFile audio(source.path());
    const auto& format = audio.format();
    const bool isSuitable = format.codec == AudioFormat::Codec::linearPCM && format.bitsPerChannel == 16 &&
                            format.channels <= 2 && format.sampleRate <= std::numeric_limits<std::int32_t>::max();
    if (!isSuitable) throw FileError("encode", source.path(), FileFault::fileReadCorruptFile);
    static_cast<void>(losslessModule());  // nothing is begun that cannot be done

    const auto file = destination.path();
    const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const char* const text = systemCalls::pathText(file, "create");
    Descriptor target(systemCalls::uninterrupted([&] { return ::open(text, flags, 0644); }));
    if (!target.isOpen()) throw FileError("create", file, systemCalls::lastError());
    try {
        encode(audio, target.number(), file, stop);
        systemCalls::sync(target.number(), file);
        if (const auto error = target.close()) throw FileError("close", file, error);
    } catch (...) {
        ::unlink(file.c_str());
        throw;
    }
}

std::function<void(const FileURL&, const FileURL&)> alacEncoder(std::stop_token stop) {
    return [stop = std::move(stop)](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination, stop);
    };
}

}  // namespace quillmere
