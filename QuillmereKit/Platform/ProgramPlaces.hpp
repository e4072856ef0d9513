#pragma once

#include <filesystem>

/// Where the running program and this library lie, for what is looked up beside them. Not part of the library's
/// interface. Thread-safe; touches the disk.
namespace quillmere::programPlaces {

/// The folder of the running program; empty if the system does not tell.
[[nodiscard]] std::filesystem::path program();

/// The folder of the shared library that holds this code, or of the program that it is linked into.
[[nodiscard]] std::filesystem::path library();

/// Whether the running program lies in the tree that this library was built in. Only such a program may use what lies
/// in the trees of sources and of the build: who runs an installed one must get what was installed.
[[nodiscard]] bool isInBuildTree();

}  // namespace quillmere::programPlaces
