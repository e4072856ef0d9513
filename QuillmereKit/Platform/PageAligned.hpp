#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace quillmere {

/// Gives out memory that begins where a page does. Thread-safe; throws `std::bad_alloc` where there is none.
template <class T>
struct PageAllocator {
    using value_type = T;  ///< What the memory is for.

    PageAllocator() = default;
    /// All of them are alike.
    template <class Other>
    explicit PageAllocator(const PageAllocator<Other>& /*other*/) noexcept {}

    /// Room for so many values.
    [[nodiscard]] T* allocate(std::size_t count) {
        return static_cast<T*>(::operator new(count * sizeof(T), std::align_val_t(pageSize)));
    }
    /// Takes back what `allocate` gave out.
    void deallocate(T* memory, std::size_t /*count*/) noexcept {
        ::operator delete(memory, std::align_val_t(pageSize));
    }

    /// Any of them takes back what any gave out.
    friend bool operator==(const PageAllocator&, const PageAllocator&) noexcept { return true; }

private:
    static constexpr std::size_t pageSize = 4096;
};

/// What to read files into, by the piece. A copy out of the system's cache whose target lies a little further into its
/// page than its source does, as memory from the heap is apt to, takes four times as long: the processor mistakes each
/// load for one of what it has just stored ("4K aliasing"; Intel 64 and IA-32 Architectures Optimization Reference
/// Manual, section on memory disambiguation).
template <class T>
using PageAligned = std::vector<T, PageAllocator<T>>;

}  // namespace quillmere
