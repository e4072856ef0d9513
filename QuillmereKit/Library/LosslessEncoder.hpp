#pragma once

#include <functional>
#include <stop_token>

#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {

/// Encodes a 16-bit WAV file of one or two channels as Apple Lossless in an MPEG-4 audio file. Never writes over an
/// existing file, and leaves none when it fails. The file is synced. Takes a second thread to help while it runs; the
/// bytes are the same at any time and on any machine with the same FFmpeg.
///
/// Throws `FileError`: `fileReadCorruptFile` for another source, the system's cause, `fileWriteUnknown` if the encoder
/// fails; `LosslessUnavailable` where the lossless module is missing; `CancellationError` when `stop` asks.
/// Thread-safe.
void encodeALAC(const FileURL& source, const FileURL& destination, const std::stop_token& stop = {});

/// `encodeALAC` as what `LoopStore::migrateToLossless` takes.
[[nodiscard]] std::function<void(const FileURL& source, const FileURL& destination)> alacEncoder(
    std::stop_token stop = {});

}  // namespace quillmere
