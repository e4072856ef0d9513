#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"

namespace quillmere {

/// The recipes that the user saved or imported: one file, and the same list in memory, unique by fingerprint.
///
/// Every change writes the whole file durably; a failed write is kept as `lastSaveError` and made good by the next
/// change. A damaged file makes an empty vault, and is kept beside the new one before anything replaces it. So does one
/// that cannot be read now, but nothing replaces it before it was read.
///
/// Several processes may change one vault: what others wrote since is taken in before a change is written, their
/// additions and their removals. A lock on ".saved.lock" beside the file is held while it is written; a change that
/// finds it held stays in memory, and `lastSaveError` names the holder.
///
/// Thread-safe: yes. Blocks on disk: construction, every change and `refresh`; reading the list never does.
class RecipeVault {
public:
    /// The vault's file is never larger, in bytes: a longer one is not read, nor ever written.
    static constexpr std::size_t mostBytes = std::size_t{64} * 1024 * 1024;

    /// What an import did, each list in the file's order.
    struct ImportResult {
        std::vector<LoopRecipe> added;                 ///< New, and saved.
        std::vector<LoopRecipe> duplicates;            ///< Valid, but already held.
        std::vector<RecipeBundle::Rejected> rejected;  ///< Failed their checks.

        /// One line for the user: "3 added · 1 already saved · 2 unusable".
        [[nodiscard]] std::string summary() const;
        friend bool operator==(const ImportResult&, const ImportResult&) = default;
    };

    /// The process-wide vault, made on first use in the application's data folder (in the temporary folder where the
    /// user has none, and in one of the process's own under the automated harness).
    [[nodiscard]] static RecipeVault& shared();

    /// Opens the vault in `directory` (default: the application's data folder), making it if missing. Throws
    /// `FileError` if it cannot be made; a file that is missing or unreadable makes an empty vault, and `loadProblem`
    /// tells the one from the other. A relative path is taken from the current folder, now; an empty one stops the
    /// process.
    ///
    /// A link in the file's place is followed where it names a vault's file, which changes then replace. Any other link
    /// is left alone, for what it names may only be away: the vault is empty, and every write fails.
    explicit RecipeVault(const std::optional<std::filesystem::path>& directory = std::nullopt);

    /// The vault's file.
    [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_; }

    /// Why the file could not be read when that was last tried, as a sentence: the list may then lack what the user
    /// keeps. Nothing once the file was read or written, and where there is none.
    [[nodiscard]] std::optional<std::string> loadProblem() const;

    /// Takes in what another process wrote since, and a file that could not be read before: for who decides by the list
    /// what to change or to hand out. Never fails: where the file cannot be read the list stays, and `loadProblem` says
    /// why. Writes nothing.
    void refresh();

    /// The recipes, oldest first.
    [[nodiscard]] std::vector<LoopRecipe> saved() const;
    /// How many recipes are held.
    [[nodiscard]] std::size_t count() const;
    /// Whether a recipe with this fingerprint is held.
    [[nodiscard]] bool contains(std::string_view fingerprint) const;

    /// Appends a recipe, unless one with its fingerprint is held. Returns whether it was new.
    bool save(LoopRecipe recipe);

    /// Removes every recipe with this fingerprint. Returns whether there was one.
    bool remove(std::string_view fingerprint);

    /// All recipes as a shareable bundle. Throws `ImportError` if one cannot be shared.
    [[nodiscard]] std::string exported() const;

    /// Saves the usable recipes of a bundle's bytes. Throws `JSONError` or `ImportError` if the bytes are no bundle;
    /// nothing is saved then.
    ImportResult importing(std::string_view bytes);

    /// Why the last write failed, until one succeeds.
    [[nodiscard]] std::optional<std::string> lastSaveError() const;

private:
    /// What the file held when it was read.
    struct Contents {
        std::optional<FileFacts> facts;
        std::vector<LoopRecipe> recipes;  // each fingerprint once
        std::set<std::string, std::less<>> fingerprints;
        bool isWhole = true;                // nothing would be lost if the recipes were written again
        std::optional<std::string> damage;  // why nothing could be read, and will not be
    };
    [[nodiscard]] static Contents read(const std::filesystem::path& place);
    void find();
    void takeIn(Contents theirs);
    void takeInOthers();
    bool append(LoopRecipe recipe);
    void persist();
    std::optional<std::string> write();

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    std::vector<LoopRecipe> recipes_;           // guarded by mutex_
    std::optional<std::string> loadProblem_;    // guarded by mutex_
    std::optional<std::string> lastSaveError_;  // guarded by mutex_
    std::mutex writing_;  // held while the file is written, so that the newest list is written last; before mutex_

    // Guarded by writing_: where the file itself is, behind a link (nothing until that is known), the file as this
    // process last read or wrote it, and what it held then.
    std::optional<std::filesystem::path> place_;
    std::optional<FileFacts> known_;
    std::set<std::string, std::less<>> knownFingerprints_;
    bool isUnreadable_ = false;  // it is still to be kept aside
};

}  // namespace quillmere
