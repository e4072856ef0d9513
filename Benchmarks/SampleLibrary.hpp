#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"

namespace quillmere::benchmarks {

/// Piece number `index` of a library in `folder`: moods of 500 pieces each, as a listener makes them (the built-in
/// prompts, five blend steps, measured loudness). The default mood comes first.
[[nodiscard]] LoopArtifact samplePiece(const std::filesystem::path& folder, std::size_t index);

/// How many pieces of a sample library share a mood.
inline constexpr std::size_t piecesPerMood = 500;

/// The identifier of the mood of piece `index`.
[[nodiscard]] std::string sampleMood(std::size_t index);

/// Makes a library of so many pieces in a fresh folder, which the caller removes.
[[nodiscard]] std::filesystem::path makeLibrary(std::size_t count);

/// A loop library of `count` pieces with a manifest and (nearly empty) audio files, made on first use among the
/// temporary files and removed when the process ends; or in the folder that QUILLMERE_BENCHMARK_LIBRARIES names, where
/// the next process finds it again.
[[nodiscard]] const std::filesystem::path& sampleLibrary(std::size_t count);

/// Another such library, for what changes it: at each call its `count` pieces are there again, on the disk.
[[nodiscard]] const std::filesystem::path& changingLibrary(std::size_t count);

/// Opens a library without any seeds; what is discarded is deleted.
[[nodiscard]] std::shared_ptr<LoopStore> openLibrary(const std::filesystem::path& folder);

}  // namespace quillmere::benchmarks
