#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Library/LoopIndex.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

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
    [[nodiscard]] const StoredLoop* find(LoopKey key) const noexcept { return loops_.find(key); }

    /// The pieces of a mood by fingerprint, ascending. Valid until the table changes.
    [[nodiscard]] const std::vector<StoredLoop*>& mood(std::string_view moodID) const noexcept;

    /// Calls `visit` with every mood that has pieces and with these, by fingerprint, ascending.
    template <class Visit>
    void forEachMood(const Visit& visit) const {
        for (const auto& [moodID, loops] : moods_) visit(moodID, std::span<const StoredLoop* const>(loops));
    }

    /// All pieces by fingerprint, ascending. Valid until the table changes.
    [[nodiscard]] std::vector<const StoredLoop*> inOrder() const;

    /// Calls `visit` with every piece, in no particular order.
    template <class Visit>
    void forEach(const Visit& visit) const {
        loops_.forEach([&](const StoredLoop& loop) { visit(loop); });
    }

    /// Fills an empty table with the entries of a manifest; those for which `placeOf` knows no place are left out, and
    /// of equal fingerprints the last counts. Returns whether all came in. Throws `JSONError`; the table is then as it
    /// was.
    bool fill(const JSONValue& manifest, const std::function<std::optional<Place>(const FileURL&)>& placeOf);

    /// Stores a piece, replacing the one with its fingerprint.
    void put(Item item) { putAll({&item, 1}); }

    /// The same for many pieces, which are taken away: all of them, or none if it throws.
    void putAll(std::span<Item> items);

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
    // A piece that is about to be stored, and its text; none if it cannot be encoded.
    struct Ready {
        std::unique_ptr<StoredLoop> loop;
        std::optional<std::string> text;
    };
    [[nodiscard]] std::vector<Ready> madeReady(std::span<Item> items);
    void take(std::unique_ptr<StoredLoop> loop, const std::optional<std::string>& text) noexcept;
    void removeEmptyMoods() noexcept;
    void appendToManifest(StoredLoop& loop, std::string_view text);
    void rebuildManifest();

    SharedTexts texts_;
    LoopIndex loops_;
    std::map<std::string, std::vector<StoredLoop*>, std::less<>> moods_;
    std::size_t unencodable_ = 0;

    // The manifest's text as of the last call; each piece knows its own part. Adding appends to it; anything else
    // makes it stale, and the next call puts it together again from the parts that still hold.
    std::string manifest_ = "[]";
    bool isManifestStale_ = false;
};

}  // namespace quillmere
