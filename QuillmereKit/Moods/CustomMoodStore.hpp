#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
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
/// process last read or wrote. Two updates in the very same moment are not kept apart: the later one holds.
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
    /// empty list, and one that cannot be read is moved aside, never overwritten. Blocks on disk.
    ///
    /// A link in the file's place is followed where it names a mood file, which updates then replace. Any other link is
    /// left alone, for what it names may only be away: the list is empty, and every update fails.
    ///
    /// `now` dates the name under which an unreadable file is kept.
    explicit CustomMoodStore(std::optional<std::filesystem::path> file = std::nullopt,
                             std::function<Date()> now = &std::chrono::system_clock::now);

    /// Where the list is kept; empty, and every update fails, for a user without any home folder.
    [[nodiscard]] const std::filesystem::path& url() const noexcept { return file_; }

    /// The user's moods, in the user's order.
    [[nodiscard]] std::vector<MoodSpec> all() const;

    /// The first specification with exactly this id, or nothing.
    [[nodiscard]] std::optional<MoodSpec> spec(std::string_view id) const;

    /// Replaces the specification with the same id, or puts a new one first. Returns once that would survive a power
    /// cut. Blocks on disk.
    ///
    /// Throws `FileError`, or `EncodingError` for a specification that JSON cannot hold; file and list are then as they
    /// were. Only where the error's `isInPlace()` is true, both hold the change, which a power cut may still undo.
    void save(MoodSpec spec);

    /// Removes every specification with this id; the file is written again even if there is none. Blocks on disk;
    /// throws as `save` does.
    void remove(std::string_view id);

private:
    void load();
    void takeInWhatOthersWrote();
    void update(const std::function<void(std::vector<MoodSpec>&)>& change);

    const std::filesystem::path file_;
    const std::function<Date()> now_;
    std::filesystem::path place_;  // of the file itself, behind a link; set by the constructor only
    mutable std::mutex mutex_;
    std::vector<MoodSpec> specs_;       // guarded by mutex_
    std::optional<FileFacts> known_;    // guarded by mutex_; the file as last read or written
    bool isUnreadableInPlace_ = false;  // guarded by mutex_; the file must be kept aside before it is replaced
};

}  // namespace quillmere
