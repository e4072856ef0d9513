#include "QuillmereKit/Platform/HugePages.hpp"

#include <sys/mman.h>

#include <cstdint>

namespace quillmere {

void preferHugePages(void* memory, std::size_t size) noexcept {
    constexpr std::size_t hugePage = std::size_t{2} << 20;
    const std::size_t before = (hugePage - reinterpret_cast<std::uintptr_t>(memory) % hugePage) % hugePage;
    if (size < before + hugePage) return;
    const std::size_t whole = (size - before) / hugePage * hugePage;
    static_cast<void>(::madvise(static_cast<std::byte*>(memory) + before, whole, MADV_HUGEPAGE));
}

}  // namespace quillmere
