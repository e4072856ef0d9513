#pragma once

#include <stop_token>
#include <string>

#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {

/// The digest of decoded samples: it depends on the sample values and their order alone, not on the container, so that
/// a WAV file and its lossless copy give the same text. Thread-safe.
namespace AudioPCM {

/// SHA-256 of the interleaved 16-bit samples, least significant byte first, as 64 lower-case hexadecimal digits. Reads
/// the file in buffers of 8,192 frames, or fewer where there are more than eight channels. Throws `FileError` if it
/// cannot be opened or decoded whole, `CancellationError` when `stop` asks.
[[nodiscard]] std::string digest(const FileURL& url, const std::stop_token& stop = {});

/// The same for an opened file, from where it stands to its end.
[[nodiscard]] std::string digest(AudioFile& file, const std::stop_token& stop = {});

}  // namespace AudioPCM

}  // namespace quillmere
