#pragma once

#include <cstddef>

namespace quillmere {

/// Says that a large block of fresh memory will be written from one end to the other. The system may then hand it out
/// by pages of 2 MiB, where it would otherwise interrupt the writer at every 4 KiB to bring the next one. A wish: does
/// nothing for small blocks, or where the system knows no such pages. Thread-safe.
void preferHugePages(void* memory, std::size_t size) noexcept;

}  // namespace quillmere
