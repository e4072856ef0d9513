#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"

// The border between the library and the one component that uses FFmpeg: plain functions in a table, so that neither
// side sees the other's types, and the component (a module of its own, with a licence of its own) is loaded only when
// the first lossless file is met.

namespace quillmere {

/// A reader of the module.
struct LosslessReader;
/// A writer of the module.
struct LosslessWriter;

/// What an opened file holds.
struct LosslessInfo {
    std::int64_t frames;          ///< Length, as the container says.
    std::int32_t sampleRate;      ///< Frames per second.
    std::int32_t channels;        ///< Interleaved channels, 1...8.
    std::int32_t bitsPerChannel;  ///< Of the stored samples.
    std::int32_t isALAC;          ///< 1 if the samples are stored as Apple Lossless.
};

/// The functions that the module offers, from `quillmereLosslessModule`. A failure is a negative result: minus the
/// system's error number where the system failed (`ENOMEM` where memory ran out), `badAudio` for all else. A reader or
/// writer belongs to one thread at a time, and after a failure can only be closed.
struct LosslessModule {
    static constexpr std::int32_t currentVersion = 3;   ///< Raised with every change of this table.
    static constexpr std::int32_t badAudio = -1000000;  ///< The audio is not what it must be.

    std::int32_t version;  ///< `currentVersion` of the header that the module was built with.

    /// Opens the MPEG-4 audio file behind a descriptor that stays the caller's and is read at positions of its own.
    std::int32_t (*openReader)(int descriptor, LosslessReader** reader, LosslessInfo* info);
    /// Decodes up to `frames` whole frames of interleaved 16-bit samples; returns how many, 0 at the end.
    std::int64_t (*read)(LosslessReader* reader, std::int16_t* samples, std::int64_t frames);
    /// Ends a reader; its descriptor stays open.
    void (*closeReader)(LosslessReader* reader);

    /// Begins an Apple Lossless file in MPEG-4 behind an empty descriptor, open for reading and writing, that stays the
    /// caller's. `threads` is 1 or 2, the calling one included; the bytes written do not depend on it.
    std::int32_t (*openWriter)(int descriptor, std::int32_t sampleRate, std::int32_t channels, std::int32_t threads,
                               LosslessWriter** writer);
    /// Appends whole frames of interleaved 16-bit samples.
    std::int32_t (*write)(LosslessWriter* writer, const std::int16_t* samples, std::int64_t frames);
    /// Completes the file. The writer is still to be closed.
    std::int32_t (*finish)(LosslessWriter* writer);
    /// Ends a writer; its descriptor stays open. An unfinished file is of no use.
    void (*closeWriter)(LosslessWriter* writer);
};

/// The name of the module's one exported function, of type `const LosslessModule*()`.
inline constexpr const char* losslessModuleFunction = "quillmereLosslessModule";

/// The module that reads and writes lossless files is not there or cannot be loaded. Says nothing about any file.
class LosslessUnavailable : public Error {
public:
    /// `reason` is a sentence.
    explicit LosslessUnavailable(const std::string& reason);
};

/// The module, loaded on first use; the same for the whole process. Throws `LosslessUnavailable`; a later call tries
/// again. The environment's QUILLMERE_LOSSLESS_MODULE names its file, where it does not lie with the library.
/// Thread-safe.
[[nodiscard]] const LosslessModule& losslessModule();

}  // namespace quillmere
