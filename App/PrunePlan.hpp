#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere::app {

/// Which pieces of a library may go so that each mood keeps its newest music.
struct PrunePlan {
    /// A piece that may go.
    struct Victim {
        LoopArtifact piece;       ///< The piece.
        std::uint64_t bytes = 0;  ///< The size of its file.
    };

    std::vector<Victim> victims;    ///< By mood, then the oldest first.
    std::set<std::string> keeping;  ///< The fingerprints of all other pieces.

    /// The bytes of all victims' files.
    [[nodiscard]] std::uint64_t bytes() const;

    /// Keeps, mood by mood, the newest pieces by the time of their files until they last `seconds`; with them all whose
    /// fingerprints are among `safe`, recordings, and pieces whose files are not the folder's own, are named like lists
    /// or locks, or cannot be looked at. Of files of the same time the lower fingerprint counts as the newer. Asks the
    /// disk for each piece.
    [[nodiscard]] static PrunePlan make(const std::vector<LoopArtifact>& pieces, const std::filesystem::path& folder,
                                        double seconds, const std::set<std::string>& safe);
};

}  // namespace quillmere::app
