#pragma once

#include <stop_token>

#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere {

/// Encodes a 16-bit WAV file of one or two channels as Apple Lossless in an MPEG-4 audio file: the encoder for
/// `LoopStore::migrateToLossless`. Never writes over an existing file, and leaves none when it fails. The file is
/// synced. Throws `FileError`, or `CancellationError` when `stop` asks. Thread-safe.
void encodeALAC(const FileURL& source, const FileURL& destination, const std::stop_token& stop = {});

}  // namespace quillmere
