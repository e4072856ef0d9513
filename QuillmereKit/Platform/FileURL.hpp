#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// A URL that names a file: the text it was read with, kept and written back unchanged.
///
/// Made from a path, letters, digits and `-._~!$&'()*+,;=:@/` stay and every other byte of the UTF-8
/// is `%XX` in upper case. A plain value; equality is that of the text.
class FileURL {
public:
    /// The URL of a path, taken as bytes; a relative one counts from the current folder.
    [[nodiscard]] static FileURL fromPath(const std::filesystem::path& path);

    /// The URL with this text, or nothing where the text is no URL at all (the empty text).
    [[nodiscard]] static std::optional<FileURL> fromText(std::string_view text);

    /// The text as read, or as made from the path: "file:///a%20b.wav".
    [[nodiscard]] const std::string& text() const noexcept { return text_; }

    /// Whether the scheme is `file`, compared without regard to case.
    [[nodiscard]] bool isFile() const noexcept;

    /// The decoded path part, without host, query and fragment. A "%" without two hexadecimal digits stands for itself.
    /// Empty if the path holds a zero byte: the system would see only what is before it, and so another file.
    [[nodiscard]] std::filesystem::path path() const;

    /// The path made standard: `//`, `.` and `..` removed by text alone; links are not followed.
    [[nodiscard]] std::filesystem::path standardPath() const;

    friend bool operator==(const FileURL&, const FileURL&) = default;

private:
    explicit FileURL(std::string text) noexcept : text_(std::move(text)) {}
    std::string text_;
};

/// `path` made standard by text alone, as `FileURL::standardPath` does.
[[nodiscard]] std::filesystem::path standardPath(const std::filesystem::path& path);

/// Written and read as one string, the URL's text.
void encode(JSONWriter& writer, const FileURL& url);
template <>
FileURL decode<FileURL>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::FileURL> {
    std::size_t operator()(const quillmere::FileURL& url) const noexcept {
        return std::hash<std::string>{}(url.text());
    }
};
