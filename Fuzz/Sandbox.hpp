#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

/// What the fuzzed targets share. Each target is one `LLVMFuzzerTestOneInput` that gives a reader any bytes: the reader
/// answers with a value or with an error of its own kind, and what the target says of values and files holds. Anything
/// else, an exception of another kind too, ends the process and is a finding.
namespace quillmere::fuzz {

/// Ends the process unless `holds`. `property` is the sentence that turned out false.
void require(bool holds, const char* property);

/// A folder of this process's own, without a link on the way, gone at the end. The user's folders are in it, so that no
/// input reaches what a user owns.
const std::filesystem::path& sandbox();

/// Writes a whole file, making the folders it needs.
void write(const std::filesystem::path& file, std::string_view bytes);

/// The content of a file that is there.
std::string read(const std::filesystem::path& file);

/// Whether another file of the same folder holds these bytes: what the reader of `file` kept of it.
bool isKeptBeside(const std::filesystem::path& file, std::string_view bytes);

/// What lies below a folder: by path, what it is, and what it holds or where it leads.
using Tree = std::map<std::string, std::string>;
Tree treeOf(const std::filesystem::path& folder);

/// An input as text.
inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace quillmere::fuzz

extern "C" int LLVMFuzzerInitialize(int* argumentCount, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
