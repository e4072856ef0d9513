#pragma once

#include <filesystem>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere::app {

/// The manifest of the library in `folder`.
[[nodiscard]] std::filesystem::path manifestFile(const std::filesystem::path& folder);

/// The entries of a manifest as they stand, their files there or not; none if the manifest is missing. Throws
/// `FileError` or `JSONError` if it cannot be read whole. Blocks on disk.
[[nodiscard]] std::vector<LoopArtifact> readManifest(const std::filesystem::path& file);

/// The whole text of a manifest, or of a copy that was kept of one; nothing if it is missing. Throws `FileError`.
[[nodiscard]] std::optional<std::string> readManifestText(const std::filesystem::path& file);

/// Whether a name directly in a library's folder is that of a lock or a list, whatever they are worth: the library's
/// own manifest, its digests, the copies kept of them, what a crash left of writing them, and the lists of moods,
/// recipes and settings of who keeps the library where these lie.
[[nodiscard]] bool isLibraryRecord(std::string_view name);

}  // namespace quillmere::app
