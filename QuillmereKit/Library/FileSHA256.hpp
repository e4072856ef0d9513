#pragma once

#include <string>

#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere::FileSHA256 {

/// SHA-256 of a regular file's bytes, as 64 lower-case hexadecimal digits. Holds 64 KiB of it at a time. Throws
/// `FileError`. Thread-safe.
[[nodiscard]] std::string digest(const FileURL& url);

}  // namespace quillmere::FileSHA256
