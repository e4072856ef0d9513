#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere::app {

/// What looking through a whole library found. Looking changes nothing, and others may write meanwhile: what they
/// changed since is no finding.
struct LibraryCheck {
    /// A piece that is not as it should be.
    struct Finding {
        std::string fingerprint;  ///< The piece.
        std::string place;        ///< Its file, or its URL where that names none.
        std::string problem;      ///< A sentence.
    };

    std::size_t proved = 0;        ///< Pieces whose samples are those that were made.
    std::size_t unproved = 0;      ///< Pieces that can be decoded whole, but whose digest was never kept.
    std::vector<Finding> damaged;  ///< Pieces that cannot be decoded whole, or to other samples.
    std::vector<Finding> missing;  ///< Pieces whose files are not there.
    /// Files in the folder that no piece uses and that are no lists or locks.
    std::vector<std::string> unlisted;
    /// A sentence for each of the library's records and folders that cannot be read.
    std::vector<std::string> unreadable;

    /// Whether nothing is wrong.
    [[nodiscard]] bool isSound() const noexcept {
        return damaged.empty() && missing.empty() && unlisted.empty() && unreadable.empty();
    }

    /// Looks through the library in `folder`: decodes every piece and compares it with its digest. `onPiece` hears of
    /// each before. Throws `CancellationError` when `stop` asks. A folder that is not there is an empty library.
    [[nodiscard]] static LibraryCheck make(
        const std::filesystem::path& folder, const std::stop_token& stop,
        const std::function<void(std::size_t index, std::size_t count, const std::string& fingerprint)>& onPiece);
};

}  // namespace quillmere::app
