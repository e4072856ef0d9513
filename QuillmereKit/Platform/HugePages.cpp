#include "QuillmereKit/Platform/HugePages.hpp"

#include <sys/mman.h>

#include <cstdint>

namespace quillmere {

void preferHugePages(const void* memory, std::size_t size) noexcept {
    constexpr std::uintptr_t hugePage = std::uintptr_t{2} << 20;
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    const auto first = (begin + hugePage - 1) / hugePage * hugePage;
    const auto last = (begin + size) / hugePage * hugePage;
    if (first >= last) return;
    static_cast<void>(::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE));
}

}  // namespace quillmere
