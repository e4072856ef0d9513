#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

namespace quillmere::app {

/// A file that is held in memory and replaced whole, and which state of it that memory follows. Not thread-safe. Blocks
/// on disk.
class KnownFile {
public:
    explicit KnownFile(std::filesystem::path path);

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

    /// The file as last read or written; nothing where that is not known.
    [[nodiscard]] const std::optional<FileFacts>& facts() const noexcept { return facts_; }

    /// Whether what was last written is in place, and a power cut may undo it.
    [[nodiscard]] bool isUnsynced() const noexcept { return isUnsynced_; }

    /// Reads the file if it is not the known one. `take` gets its text, and throws `JSONError` if that is damaged;
    /// `noteDamage` gets what says that the file can never be read: that error, that it is no regular file, or that it
    /// has more than `mostBytes`. Neither is called where no file stands. Throws `FileError` where it cannot be read
    /// now, and is then asked again the next time.
    void catchUp(std::size_t mostBytes, const std::function<void(std::string_view text)>& take,
                 const std::function<void(const Error& error)>& noteDamage);

    /// Writes the file durably and calls `follow` once the text stands in its place, which must not throw. Throws
    /// `FileError`; `follow` was called if that says that the text is in place.
    void write(std::string_view text, const std::function<void()>& follow);

private:
    std::filesystem::path path_;
    std::optional<FileFacts> facts_;
    bool isUnsynced_ = false;
};

}  // namespace quillmere::app
