extern "C" {
#include <libavutil/log.h>
}

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

#include "Lossless/Reader.hpp"
#include "Lossless/Writer.hpp"
#include "QuillmereKit/Platform/LosslessModule.hpp"

// No exception crosses the border: each becomes a negative result.
namespace quillmere {
namespace {

template <class Function>
auto guarded(const Function& function) noexcept -> decltype(function()) {
    try {
        return function();
    } catch (const std::system_error& error) {
        return -error.code().value();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (const std::exception&) {
        return LosslessModule::badAudio;
    }
}

constexpr LosslessModule module{
    .version = LosslessModule::currentVersion,
    .openReader =
        [](int descriptor, LosslessReader** reader, LosslessInfo* info) {
            return guarded([&]() -> std::int32_t {
                *reader = new LosslessReader(descriptor, *info);
                return 0;
            });
        },
    .read = [](LosslessReader* reader, std::int16_t* samples,
               std::int64_t frames) { return guarded([&] { return reader->read(samples, frames); }); },
    .closeReader = [](LosslessReader* reader) { delete reader; },
    .openWriter =
        [](int descriptor, std::int32_t sampleRate, std::int32_t channels, std::int32_t threads,
           LosslessWriter** writer) {
            return guarded([&]() -> std::int32_t {
                *writer = new LosslessWriter(descriptor, sampleRate, channels, threads);
                return 0;
            });
        },
    .write =
        [](LosslessWriter* writer, const std::int16_t* samples, std::int64_t frames) {
            return guarded([&]() -> std::int32_t {
                writer->write(samples, frames);
                return 0;
            });
        },
    .finish =
        [](LosslessWriter* writer) {
            return guarded([&]() -> std::int32_t {
                writer->finish();
                return 0;
            });
        },
    .closeWriter = [](LosslessWriter* writer) { delete writer; },
};

}  // namespace
}  // namespace quillmere

extern "C" __attribute__((visibility("default"))) const quillmere::LosslessModule* quillmereLosslessModule() {
    // A damaged file is an error to the caller, not a line on the terminal. A program that uses FFmpeg itself, and has
    // set what it wants to read, is left alone.
    if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_QUIET);
    return &quillmere::module;
}
