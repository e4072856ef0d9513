#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"

namespace quillmere {

/// Reads any audio file that the library stores: WAV, and Apple Lossless in MPEG-4 through the lossless module, which
/// is loaded when the first such file is met. What kind of file it is, its first bytes decide, not its name.
///
/// Only regular files are opened. Not thread-safe; each reader owns one. Memory does not grow with the file's length.
class AudioFile {
public:
    /// Throws `FileError`: the system's cause, or `fileReadCorruptFile` if this is no whole audio file of these kinds;
    /// `LosslessUnavailable` for an MPEG-4 file where the lossless module is missing.
    explicit AudioFile(const std::filesystem::path& file);
    /// The same for a file that is open already, however it was reached. `file` is what errors call it.
    AudioFile(Descriptor opened, const std::filesystem::path& file);
    AudioFile(AudioFile&&) noexcept;
    AudioFile& operator=(AudioFile&&) noexcept;
    ~AudioFile();

    /// How the samples are stored.
    [[nodiscard]] const AudioFormat& format() const noexcept;

    /// Length in frames.
    [[nodiscard]] std::int64_t frames() const noexcept;

    /// How many frames to read at a time: 8,192, and fewer of more than eight channels, at least 1. So a buffer for
    /// them takes no more than 128 KiB, however many channels a file claims to have.
    [[nodiscard]] std::size_t framesAtATime() const noexcept;

    /// Reads whole frames of interleaved 16-bit samples, as many as fit; returns the frames read, 0 at the end. Throws
    /// `FileError`, with `fileReadCorruptFile` if the samples are not stored with 16 bits, or cannot be decoded, or the
    /// file does not end where its frames do.
    [[nodiscard]] std::size_t read(std::span<std::int16_t> samples);

private:
    struct Source;
    struct WAVSource;
    struct LosslessSource;
    std::unique_ptr<Source> source_;
};

}  // namespace quillmere
