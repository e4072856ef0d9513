#include "QuillmereKit/Library/LosslessEncoder.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere {
namespace {

using Message = std::array<char, LosslessModule::messageSize>;

[[noreturn]] void refuse(const std::filesystem::path& file) {
    throw FileError("encode", file, make_error_code(FileFault::fileWriteUnknown));
}

void encode(AudioFile& audio, int descriptor, const std::filesystem::path& file, const std::stop_token& stop) {
    const LosslessModule& module = losslessModule();
    Message message{};
    LosslessWriter* opened = nullptr;
    const auto rate = static_cast<std::int32_t>(audio.format().sampleRate);
    if (module.openWriter(descriptor, rate, audio.format().channels, &opened, message.data()) < 0) refuse(file);
    const std::unique_ptr<LosslessWriter, void (*)(LosslessWriter*)> writer(opened, module.closeWriter);

    constexpr std::size_t framesAtATime = 8192;
    std::vector<std::int16_t> samples(framesAtATime * static_cast<std::size_t>(audio.format().channels));
    while (true) {
        if (stop.stop_requested()) throw CancellationError();
        const std::size_t frames = audio.read(samples);
        if (frames == 0) break;
        const auto count = static_cast<std::int64_t>(frames);
        if (module.write(writer.get(), samples.data(), count, message.data()) < 0) refuse(file);
    }
    if (module.finish(writer.get(), message.data()) < 0) refuse(file);
}

}  // namespace

void encodeALAC(const FileURL& source, const FileURL& destination, const std::stop_token& stop) {
    AudioFile audio(source.path());
    const auto& format = audio.format();
    if (format.codec != AudioFormat::Codec::linearPCM || format.bitsPerChannel != 16 || format.channels > 2) {
        throw FileError("encode", source.path(), make_error_code(FileFault::fileReadCorruptFile));
    }

    const auto file = destination.path();
    Descriptor target(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
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

}  // namespace quillmere
