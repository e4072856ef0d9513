#include <cstdio>
#include <exception>
#include <new>

#include "Lossless/Reader.hpp"
#include "Lossless/Writer.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"

// No exception crosses the border: each becomes a negative result and a message.
namespace quillmere {
namespace {

template <class Result, class Function>
Result guarded(char* message, const Function& function) noexcept {
    try {
        return function();
    } catch (const std::exception& error) {
        std::snprintf(message, LosslessModule::messageSize, "%s", error.what());
        return -1;
    }
}

constexpr LosslessModule module{
    .version = LosslessModule::currentVersion,
    .openReader =
        [](int descriptor, LosslessReader** reader, LosslessInfo* info, char* message) {
            return guarded<std::int32_t>(message, [&] {
                *reader = new LosslessReader(descriptor, *info);
                return 0;
            });
        },
    .read = [](LosslessReader* reader, std::int16_t* samples, std::int64_t frames,
               char* message) { return guarded<std::int64_t>(message, [&] { return reader->read(samples, frames); }); },
    .closeReader = [](LosslessReader* reader) { delete reader; },
    .openWriter =
        [](int descriptor, std::int32_t sampleRate, std::int32_t channels, LosslessWriter** writer, char* message) {
            return guarded<std::int32_t>(message, [&] {
                *writer = new LosslessWriter(descriptor, sampleRate, channels);
                return 0;
            });
        },
    .write =
        [](LosslessWriter* writer, const std::int16_t* samples, std::int64_t frames, char* message) {
            return guarded<std::int32_t>(message, [&] {
                writer->write(samples, frames);
                return 0;
            });
        },
    .finish =
        [](LosslessWriter* writer, char* message) {
            return guarded<std::int32_t>(message, [&] {
                writer->finish();
                return 0;
            });
        },
    .closeWriter = [](LosslessWriter* writer) { delete writer; },
};

}  // namespace
}  // namespace quillmere

extern "C" __attribute__((visibility("default"))) const quillmere::LosslessModule* quillmereLosslessModule() {
    return &quillmere::module;
}
