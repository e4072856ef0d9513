#pragma once

#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {

/// The file that a piece's URL names; nothing where it can name none (another scheme, a relative path).
[[nodiscard]] std::optional<std::filesystem::path> fileOf(const LoopArtifact& artifact);

/// The piece that a fingerprint, or the beginning of one that no other piece has, names. Throws
/// `UsageError`, with a suggestion for a mistyped one.
[[nodiscard]] LoopArtifact namedPiece(const LoopStore& store, const std::string& fingerprint);

/// The pieces of a mood, of all moods for an empty id; by mood, then by fingerprint. Throws `UsageError` for
/// a mood that is neither in the catalogue nor in the library, with a suggestion for a mistyped one.
[[nodiscard]] std::vector<LoopArtifact> piecesOf(const LoopStore& store, const std::string& moodID);

/// A piece in one line, safe for a terminal.
[[nodiscard]] std::string pieceLine(const LoopArtifact& artifact);

/// Where a piece lies, in short: its file's name inside `folder`, its URL elsewhere.
[[nodiscard]] std::string placeText(const LoopArtifact& artifact, const std::filesystem::path& folder);

/// Bytes as people read them: "23.0 MB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

/// {"fingerprint": string, "artifact": artifact, "bytes"?: integer, "modified"?: time}; the file is asked for.
void writePiece(JSONWriter& writer, const LoopArtifact& artifact);

}  // namespace quillmere::app
