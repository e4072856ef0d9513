#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {

/// How the samples of an audio file are stored.
struct AudioFormat {
    /// The coding of the samples.
    enum class Codec { linearPCM, floatPCM, alac, other };
    Codec codec = Codec::other;  ///< The coding.
    int bitsPerChannel = 0;      ///< Of a stored sample.
    double sampleRate = 0;       ///< Frames per second.
    int channels = 0;            ///< Interleaved.
    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

/// Reads a RIFF/WAVE file strictly: sizes are checked against the file, so that a truncated or header-only
/// file never passes as audio. Plain, extensible (WAVE_FORMAT_EXTENSIBLE) and RF64 headers (EBU Tech 3306) of linear
/// and floating-point PCM; unknown chunks are skipped. Only regular files are opened.
///
/// Bytes after the audio are allowed, so a file can be read while its writer still appends to it: what counts is what
/// the header said when it was read. Not thread-safe; each reader owns one.
class WAVFile {
public:
    /// Throws `FileError`: the system's cause, or `fileReadCorruptFile` if this is no whole WAV file.
    explicit WAVFile(const std::filesystem::path& file);
    /// The same for a file that is open already, however it was reached. `file` is what errors call it.
    WAVFile(Descriptor opened, std::filesystem::path file);
    WAVFile(WAVFile&&) noexcept;
    ~WAVFile();

    /// How the samples are stored.
    [[nodiscard]] const AudioFormat& format() const noexcept;

    /// The number of whole frames that the header promises and the file holds; at least 1.
    [[nodiscard]] std::int64_t frames() const noexcept;
    /// The next frame to be read, 0...`frames()`.
    [[nodiscard]] std::int64_t position() const noexcept;

    /// Reads whole frames of 16-bit samples, interleaved, as many as fit in `samples`; returns the frames read, 0 at
    /// the end. Requires 16-bit linear PCM. Throws `FileError` if the file ends before its frames do.
    std::size_t read(std::span<std::int16_t> samples);

    /// Moves to a frame, 0...`frames()`; anything else stops the process.
    void seek(std::int64_t frame);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Writes a 16-bit linear PCM RIFF/WAVE file, frame by frame. The header is whole after each `flushHeader`: the file is
/// then a valid WAV file of the frames so far, also for another process. Not thread-safe.
class WAVWriter {
public:
    /// Makes a new file; never over an existing one. `sampleRate` is 1 or more, `channels` 1...32767. Throws
    /// `FileError`.
    WAVWriter(const std::filesystem::path& file, int sampleRate, int channels);
    /// Closes the file; without `finish` before it, as `flushHeader` left it.
    ~WAVWriter();
    WAVWriter(const WAVWriter&) = delete;
    WAVWriter& operator=(const WAVWriter&) = delete;

    /// Appends whole frames, interleaved. Throws `FileError`, with `std::errc::file_too_large` beyond the 4 GiB
    /// that such a file can hold.
    void write(std::span<const std::int16_t> samples);
    /// Makes the header say how many frames are written so far.
    void flushHeader();
    /// Completes the header, syncs and closes the file; nothing can be written afterwards. Throws `FileError`.
    void finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere
