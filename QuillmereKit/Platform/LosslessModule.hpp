#pragma once

#include <cstddef>
#include <cstdint>

// The border between the library and the one component that uses FFmpeg: plain functions in a table, so that neither
// side sees the other's types, and the component (a module of its own, with a licence of its own) is loaded only when
// the first lossless file is met. Messages are UTF-8 with a zero at the end, at most `messageSize` bytes.

namespace quillmere {

/// A reader of the module.
struct LosslessReader;
/// A writer of the module.
struct LosslessWriter;

/// What an opened file holds.
struct LosslessInfo {
    std::int64_t frames;          ///< Length, as the container says.
    std::int32_t sampleRate;      ///< Frames per second.
    std::int32_t channels;        ///< Interleaved channels.
    std::int32_t bitsPerChannel;  ///< Of the stored samples.
    std::int32_t isALAC;          ///< 1 if the samples are stored as Apple Lossless.
};

/// The functions that the module offers, from `quillmereLosslessModule`. Each returns a negative number and fills
/// `message` on failure. A reader or writer belongs to one thread at a time.
struct LosslessModule {
    static constexpr std::int32_t currentVersion = 1;
    static constexpr std::size_t messageSize = 256;

    std::int32_t version;  ///< `currentVersion` of the header that the module was built with.

    /// Opens the MPEG-4 audio file behind a descriptor that stays the caller's and is read at positions of its own.
    std::int32_t (*openReader)(int descriptor, LosslessReader** reader, LosslessInfo* info, char* message);
    /// Decodes up to `frames` whole frames of interleaved 16-bit samples; returns how many, 0 at the end.
    std::int64_t (*read)(LosslessReader* reader, std::int16_t* samples, std::int64_t frames, char* message);
    void (*closeReader)(LosslessReader* reader);

    /// Begins an Apple Lossless file in MPEG-4 behind an empty descriptor that stays the caller's.
    std::int32_t (*openWriter)(int descriptor, std::int32_t sampleRate, std::int32_t channels, LosslessWriter** writer,
                               char* message);
    std::int32_t (*write)(LosslessWriter* writer, const std::int16_t* samples, std::int64_t frames, char* message);
    /// Completes the file. The writer is still to be closed.
    std::int32_t (*finish)(LosslessWriter* writer, char* message);
    void (*closeWriter)(LosslessWriter* writer);
};

/// The name of the module's one exported function, of type `const LosslessModule*()`.
inline constexpr const char* losslessModuleFunction = "quillmereLosslessModule";

/// The module, loaded on first use; the same for the whole process. Throws `FileError` if it cannot be loaded.
[[nodiscard]] const LosslessModule& losslessModule();

}  // namespace quillmere
