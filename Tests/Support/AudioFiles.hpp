#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace quillmere::test {

/// The bytes of a plain WAV file with this format tag (1 linear, 3 floating point) and audio.
std::string wavBytes(int tag, int bits, std::uint32_t sampleRate, int channels, const std::string& audio);

/// The bytes of a 16-bit WAV file of interleaved samples.
std::string wavBytes(std::span<const std::int16_t> samples, std::uint32_t sampleRate = 48000, int channels = 2);

/// The samples as they lie in a file, least significant byte first.
std::string littleEndian(std::span<const std::int16_t> samples);

/// Interleaved samples that are the same on every machine: a few wandering tones with noise on them, so that a lossless
/// encoder finds something to do.
std::vector<std::int16_t> tones(std::uint64_t seed, int channels, std::size_t frames);

/// Writes an Apple Lossless file through the lossless module, whatever is asked of it. Fails the test if it cannot.
void writeALAC(const std::filesystem::path& file, std::span<const std::int16_t> samples, int sampleRate = 48000,
               int channels = 2, int threads = 1);

/// Replaces the first `from` behind the first `after` in a text; fails the test if there is none.
std::string patched(std::string text, const std::string& after, const std::string& from, const std::string& to);

/// An MPEG-4 file with its index, the box "moov", moved before the audio.
std::string indexFirst(const std::string& file);

/// A big-endian number of four bytes.
std::string bigEndian(std::uint32_t value);

}  // namespace quillmere::test
