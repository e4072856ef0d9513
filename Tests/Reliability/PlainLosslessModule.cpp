// A stand-in for the module of lossless files: the box that tells an MPEG-4 file, and the samples as they are. With it
// migration can be watched by tools that do not know FFmpeg from the inside.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "QuillmereKit/Platform/LosslessModule.hpp"

namespace quillmere {

struct LosslessReader {
    int descriptor;
    off_t place;
};
struct LosslessWriter {
    int descriptor;
    off_t place;
};

namespace {

constexpr std::string_view box(
    "\0\0\0\x0C"
    "ftyptest",
    12);
constexpr std::int64_t frameSize = 4;

std::int32_t put(LosslessWriter& writer, const void* bytes, std::size_t count) {
    if (::pwrite(writer.descriptor, bytes, count, writer.place) != static_cast<ssize_t>(count)) return -EIO;
    writer.place += static_cast<off_t>(count);
    return 0;
}

constexpr LosslessModule module{
    .version = LosslessModule::currentVersion,
    .openReader = [](int descriptor, LosslessReader** reader, LosslessInfo* info) -> std::int32_t {
        struct stat facts {};
        if (::fstat(descriptor, &facts) != 0) return -errno;
        const auto frames = (facts.st_size - static_cast<off_t>(box.size())) / frameSize;
        *info = {.frames = frames, .sampleRate = 48000, .channels = 2, .bitsPerChannel = 16, .isALAC = 1};
        *reader = new LosslessReader{descriptor, static_cast<off_t>(box.size())};
        return 0;
    },
    .read = [](LosslessReader* reader, std::int16_t* samples, std::int64_t frames) -> std::int64_t {
        const auto count =
            ::pread(reader->descriptor, samples, static_cast<std::size_t>(frames * frameSize), reader->place);
        if (count < 0) return -errno;
        reader->place += count;
        return count / frameSize;
    },
    .closeReader = [](LosslessReader* reader) { delete reader; },
    .openWriter = [](int descriptor, std::int32_t, std::int32_t, std::int32_t,
                     LosslessWriter** writer) -> std::int32_t {
        *writer = new LosslessWriter{descriptor, 0};
        return put(**writer, box.data(), box.size());
    },
    .write = [](LosslessWriter* writer, const std::int16_t* samples, std::int64_t frames) -> std::int32_t {
        return put(*writer, samples, static_cast<std::size_t>(frames * frameSize));
    },
    .finish = [](LosslessWriter*) -> std::int32_t { return 0; },
    .closeWriter = [](LosslessWriter* writer) { delete writer; },
};

}  // namespace
}  // namespace quillmere

extern "C" __attribute__((visibility("default"))) const quillmere::LosslessModule* quillmereLosslessModule() {
    return &quillmere::module;
}
