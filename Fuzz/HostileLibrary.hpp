#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz/Sandbox.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"

namespace quillmere::fuzz {

/// A library among all that is not its own, and what a store does with it.
///
///     Loops/            piece.wav, second.wav, "a b.wav", sub/piece.wav: its own; done.wav with a damaged done.m4a
///                       link.wav, linked/, sub/link.wav, piece.m4a, Render-linked/: links that lead outside
///                       dangling.wav, loop.wav, device.wav, fifo.wav, folder.wav/: no files at all
///                       Render-UUID/: a dead run's, and two whose lock files are none
///                       Render-dead/: a person's, in spite of its name
///                       manifest.before-….json, digests.json, Moods.json, saved.json, .saved.lock: records
///     Loops-old/, Loops.wav, Outside/: not its own, whatever a manifest says
class HostileLibrary {
public:
    /// Makes it anew, with `manifest` as its manifest: in it "$LOOPS" and "$HOME" stand for the library's folder and
    /// the one around it.
    explicit HostileLibrary(std::string_view manifest);

    [[nodiscard]] std::filesystem::path home() const { return sandbox() / "library"; }
    [[nodiscard]] std::filesystem::path folder() const { return home() / "Loops"; }

    /// Puts something in the lock file's place. Nobody can lock a "fifo", a "link" or "notes" (a person's own), and
    /// nothing in the folder may change then; a "twin" (a second name of an empty file outside) can be locked, and is
    /// not to be written. Any other word does nothing.
    void spoilLock(std::string_view word);
    [[nodiscard]] bool isLockSpoiled() const noexcept { return isLockSpoiled_; }

    /// The text with the folders in their places.
    [[nodiscard]] std::string placed(std::string_view text) const;

    /// The manifest as it was given.
    [[nodiscard]] const std::string& manifest() const noexcept { return manifest_; }

    /// A store on it, whose discard and encoder look at what they are given.
    [[nodiscard]] LoopStore open();

    /// The piece that a manifest's text names by this URL, or a new one.
    [[nodiscard]] static LoopArtifact pieceAt(const FileURL& url, std::int64_t seed);

    /// Does what a word says, on every piece where it is about pieces: "add", "persist", "loudness", "migrate",
    /// "discard", "trash", "prune"; "refuse" and "fail" make the discard and the encoder fail from now on, "swap" makes
    /// them put links in the place of files and folders.
    void apply(LoopStore& store, std::string_view word);

    /// Whatever was done: nothing outside has changed, inside no link and no special file; and no file but those that
    /// the manifest names, or that are known to be a dead run's, is gone or changed.
    void requireUntouched() const;

private:
    bool discard(const FileURL& url);
    void encode(const FileURL& source, const FileURL& destination);
    void requireOwn(const std::filesystem::path& file) const;
    void swap();
    void noteNamed();
    const Tree& outside() const;

    std::string manifest_;
    Tree inside_;
    std::set<std::string> named_;  // files that the manifest names, in the forms that a migration gives them too
    bool isLockSpoiled_ = false;
    bool refuses_ = false;
    bool fails_ = false;
    bool swaps_ = false;
    bool isSwapped_ = false;
};

}  // namespace quillmere::fuzz
