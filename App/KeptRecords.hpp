#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"

namespace quillmere::app {

/// The entries of a manifest's text that can be read, each by itself, whatever is wrong with the text around them: cut
/// off, damaged in the middle, or an entry of another form. In the text's order.
[[nodiscard]] std::vector<LoopArtifact> salvagedEntries(std::string_view text);

/// What was kept of records that could not be read, or not be kept whole, and what of it can be taken back.
struct KeptRecords {
    /// A piece that a record names and the library does not hold.
    struct Entry {
        LoopArtifact piece;            ///< The piece; its URL names the audio where that is there.
        std::filesystem::path source;  ///< The record.
        std::string problem;           ///< Why it cannot be taken back; empty where it can.
    };

    /// Files that could not be read, in their place or as copies, and folders that could not be looked through.
    std::vector<std::filesystem::path> unreadable;
    std::vector<Entry> recoverable;  ///< Pieces whose audio is still there; by fingerprint.
    std::vector<Entry> missing;      ///< Pieces whose audio is not; by fingerprint.

    /// Looks through the manifest and the copies kept of it, the newest first, and for copies of unreadable files in
    /// `folders` too. Audio counts as there where the record says, or under its own name in the library's folder, also
    /// as a lossless file; it must be the folder's own file, of audio, and no other piece's. Changes nothing.
    [[nodiscard]] static KeptRecords find(const LoopStore& store, const std::vector<std::filesystem::path>& folders);
};

}  // namespace quillmere::app
