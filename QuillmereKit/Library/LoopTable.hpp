#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "QuillmereKit/Library/StoredLoop.hpp"

namespace quillmere {

/// All pieces of a library: by fingerprint, by mood, and as the text of the manifest.
///
/// An operation that throws (out of memory) leaves the table as it was. Not thread-safe; does not touch the disk.
class LoopTable {
public:
    /// Where a piece's file lies.
    struct Place {
        bool isInside = false;  ///< Its URL names a file inside the store's folder.
        bool isPlain = false;   ///< It is a regular file directly in the folder, under the plainest possible URL.
    };
    struct Item {
        LoopArtifact artifact;
        Place place;
    };

    [[nodiscard]] std::size_t count() const noexcept { return loops_.size(); }
    [[nodiscard]] const StoredLoop* find(LoopKey key) const noexcept;

    /// The pieces of a mood by fingerprint, ascending. Valid until the table changes.
    [[nodiscard]] const std::vector<StoredLoop*>& mood(std::string_view moodID) const noexcept;

    /// All pieces by fingerprint, ascending. Valid until the table changes.
    [[nodiscard]] std::vector<const StoredLoop*> inOrder() const;

    /// Calls `visit` with every piece, in no particular order.
    template <class Visit>
    void forEach(const Visit& visit) const {
        for (const auto& [key, loop] : loops_) visit(loop);
    }

    /// Fills an empty table with pieces read from JSON, which are known to be encodable; those without a place are left
    /// out, and of equal fingerprints the last counts. Returns whether all came in.
    bool fill(std::vector<LoopArtifact> artifacts, std::span<const std::optional<Place>> places);

    /// Stores a piece, replacing the one with its fingerprint.
    void put(Item item);

    /// Removes pieces; how many of them were there.
    std::size_t remove(std::span<const LoopKey> keys) noexcept;

    /// The pieces inside the folder as one compact JSON array: the manifest. Pieces that cannot be encoded are left
    /// out.
    [[nodiscard]] const std::string& manifest();

    /// All pieces, those outside the folder too, as a pretty array with sorted keys. Pieces that cannot be encoded are
    /// left out.
    [[nodiscard]] std::string prettyManifest() const;

    /// A sentence that names the pieces that cannot be written as JSON; nothing if all can.
    [[nodiscard]] std::optional<std::string> unencodableText() const;

private:
    void appendToManifest(StoredLoop& loop, std::string_view text);
    void rebuildManifest();

    SharedTexts texts_;
    std::unordered_map<LoopKey, StoredLoop> loops_;
    std::map<std::string, std::vector<StoredLoop*>, std::less<>> moods_;
    std::size_t unencodable_ = 0;

    // The manifest's text as of the last call; each piece knows its own part. Adding appends to it; anything else
    // makes it stale, and the next call puts it together again from the parts that still hold.
    std::string manifest_ = "[]";
    bool isManifestStale_ = false;
};

}  // namespace quillmere
