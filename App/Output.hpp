#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {

/// Prints the whole text of `writer` and a line end on standard output, safe for a terminal.
void printJSON(JSONWriter& writer);

/// A text as JSON can hold it: bytes that are no UTF-8, as a message has that names a file, are replaced.
[[nodiscard]] std::string jsonText(std::string_view text);

/// The same for a path.
[[nodiscard]] std::string pathText(const std::filesystem::path& path);

/// A path that a user named, from the root on: as short as it can be, but with its ".." where they stand, since
/// "link/.." is not where the link lies.
[[nodiscard]] std::filesystem::path absolutePath(const std::filesystem::path& named);

/// A file that a verb makes for its user: written under another name beside its place, and moved there once it is
/// whole. Whatever fails before, nothing is left and nothing was replaced.
class OutputFile {
public:
    /// Throws `Error` if something stands at `file`, unless that is a regular file and `mayReplace`, and if that cannot
    /// be told.
    OutputFile(const std::filesystem::path& file, bool mayReplace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Where to write; nothing stands there yet.
    [[nodiscard]] const std::filesystem::path& temporary() const noexcept { return temporary_; }

    /// Gives the file its name; the folder is synced. What came to stand there meanwhile is replaced only where it may
    /// be, and only a regular file, whose permissions the new one takes. Throws `FileError`.
    void moveIntoPlace();

private:
    void takePermissions() const;

    std::filesystem::path file_;
    std::filesystem::path temporary_;
    bool mayReplace_;
};

/// Writes a whole file for the user, durably. Throws as `OutputFile`.
void writeOutput(const std::filesystem::path& file, std::string_view bytes, bool mayReplace);

}  // namespace quillmere::app
