#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// How the samples of an audio file are stored.
struct AudioFormat {
    enum class Codec { linearPCM, floatPCM, alac, other };
    Codec codec = Codec::other;
    int bitsPerChannel = 0;
    double sampleRate = 0;  ///< Frames per second.
    int channels = 0;
    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

/// Reads a RIFF/WAVE file strictly: sizes are checked against the file, so that a truncated or header-only
/// file never passes as audio. Plain, extensible (WAVE_FORMAT_EXTENSIBLE) and RF64 headers; unknown chunks are skipped.
/// Only regular files are opened. Not thread-safe; each reader owns one.
class WAVFile {
public:
    /// Throws `FileError`: the system's cause, or `fileReadCorruptFile` if this is no whole WAV file.
    explicit WAVFile(const std::filesystem::path& file);
    WAVFile(WAVFile&&) noexcept;
    WAVFile& operator=(WAVFile&&) noexcept;
    ~WAVFile();

    [[nodiscard]] const AudioFormat& format() const noexcept;
    [[nodiscard]] std::int64_t frames() const noexcept;
    [[nodiscard]] std::int64_t position() const noexcept;

    /// Reads whole frames of 16-bit samples, interleaved, as many as fit in `samples`; returns the frames read, 0 at
    /// the end. Requires 16-bit linear PCM. Throws `FileError` if the file ends before its frames do.
    std::size_t read(std::span<std::int16_t> samples);

    /// Moves to a frame, 0...`frames()`.
    void seek(std::int64_t frame);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Writes a 16-bit linear PCM RIFF/WAVE file, frame by frame. The header is whole after each `flushHeader`.
/// Not thread-safe.
class WAVWriter {
public:
    /// Makes a new file; never over an existing one. Throws `FileError`.
    WAVWriter(const std::filesystem::path& file, int sampleRate, int channels);
    ~WAVWriter();
    WAVWriter(const WAVWriter&) = delete;
    WAVWriter& operator=(const WAVWriter&) = delete;

    void write(std::span<const std::int16_t> samples);
    /// Makes the header say how many frames are written so far.
    void flushHeader();
    /// Completes the header, syncs and closes the file. Throws `FileError`.
    void finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere
