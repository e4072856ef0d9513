#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Platform/Calendar.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

namespace quillmere {

/// The user's own moods: one JSON file, and the same list in memory.
///
/// A change is on disk before it is in memory: each update writes a whole new file beside the old one, syncs it and
/// renames it into place, so a crash leaves the old list or the new one, never a mixture, and a reader never sees
/// what is not on disk.
///
/// Where another process wrote the file since, an update changes what that one wrote; until then the list is what this
/// process last read or wrote, unless it is asked to `refresh`. A lock on a file beside it (".Moods.lock" for
/// "Moods.json") keeps the updates of two processes apart: one that finds it held is refused. Within a process one
/// store should serve each file.
///
/// Thread-safe: yes; one plain mutex, held for the whole of an update. Blocks on disk: only where a member says so.
class CustomMoodStore {
public:
    /// No mood file may be larger, in bytes: a longer one is not read, nor ever written.
    static constexpr std::size_t mostBytes = std::size_t{16} << 20;

    /// The process-wide store, made on first use at the default location; under the automated harness in a temporary
    /// file of this process.
    [[nodiscard]] static CustomMoodStore& shared();

    /// Loads the list at `file`, or at "Moods.json" in the application's data folder. Never fails: a missing file is an
    /// empty list, and a damaged one is moved aside, never overwritten. Blocks on disk.
    ///
    /// Where the disk cannot answer, the list is empty and the file stays; the first update reads it again, and fails
    /// if it still cannot be read. What is no regular file is left alone: the list is empty, and every update fails.
    /// An empty list is told from one that could not be read by `loadProblem`.
    ///
    /// A link in the file's place is followed where it names a mood file, which updates then replace. Any other link is
    /// left alone, for what it names may only be away: the list is empty, and every update fails.
    ///
    /// `now` dates the name under which a damaged file is kept.
    explicit CustomMoodStore(std::optional<std::filesystem::path> file = std::nullopt,
                             std::function<Date()> now = &std::chrono::system_clock::now);

    /// Where the list is kept; empty, and every update fails, for a user without any home folder.
    [[nodiscard]] const std::filesystem::path& url() const noexcept { return file_; }

    /// Why the file could not be read when that was last tried, as a sentence: the list may then lack what the user
    /// keeps. Nothing once the file was read, or written by an update, and where there is none; only of a damaged file
    /// that this store itself moved aside it tells until there is a list again.
    [[nodiscard]] std::optional<std::string> loadProblem() const;

    /// Takes in what another process wrote since, and a file that could not be read before: for who decides by the list
    /// what to change. Never fails: where the file cannot be read the list stays, and `loadProblem` says why. Blocks on
    /// disk.
    void refresh();

    /// The user's moods, in the user's order.
    [[nodiscard]] std::vector<MoodSpec> all() const;

    /// The first specification with exactly this id, or nothing.
    [[nodiscard]] std::optional<MoodSpec> spec(std::string_view id) const;

    /// Replaces the specification with the same id, or puts a new one first. Returns once that would survive a power
    /// cut. Blocks on disk.
    ///
    /// Throws `FileError`, `LibraryInUse` while another process writes the file, or `EncodingError` for a specification
    /// that JSON cannot hold; file and list are then as they were. Only where a `FileError`'s `isInPlace()` is true,
    /// both hold the change, which a power cut may still undo.
    void save(MoodSpec spec);

    /// Removes every specification with this id; the file is written again even if there is none. Blocks on disk;
    /// throws as `save` does.
    void remove(std::string_view id);

private:
    void load();
    void find();
    [[nodiscard]] std::string moveDamagedAside(const FileFacts& facts) const;
    [[nodiscard]] bool isNews(const std::optional<FileFacts>& present) const;
    void hold(std::vector<MoodSpec> specs) noexcept;
    void update(const std::function<void(std::vector<MoodSpec>&)>& change);

    const std::filesystem::path file_;
    const std::function<Date()> now_;
    mutable std::mutex mutex_;

    // Guarded by mutex_.
    std::vector<MoodSpec> specs_;
    std::optional<std::filesystem::path> place_;  // of the file itself, behind a link; nothing until that is known
    std::optional<FileFacts> known_;              // the file as last read or written
    std::optional<std::string> loadProblem_;
    std::optional<std::string> movedAside_;  // what to say while there is no file, of the damaged one that was there
};

}  // namespace quillmere
