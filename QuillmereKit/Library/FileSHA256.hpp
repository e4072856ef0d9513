#pragma once

#include <string>

#include "QuillmereKit/Platform/FileURL.hpp"

namespace quillmere::FileSHA256 {

/// SHA-256 of a regular file's bytes, as 64 lower-case hexadecimal digits. Reads chunks of 1 MiB. Throws `FileError`.
/// Thread-safe.
[[nodiscard]] std::string digest(const FileURL& url);

}  // namespace quillmere::FileSHA256
