#pragma once

namespace quillmere::test {

/// While it lives, requests for memory are refused: one of them, or all from it on. One at a time.
///
/// A program has it by compiling RefusedMemory.cpp into itself, whose functions then stand before the libraries' own:
/// every form of operator new and delete; and malloc, calloc, realloc, posix_memalign, aligned_alloc, memalign and
/// free, as the C libraries call them, the C library itself among them. An address sanitizer needs the latter for
/// itself.
class RefusedMemory {
public:
    /// Who asks for memory.
    enum class Source {
        cpp,  ///< C++, by operator new.
        c,    ///< A C library, by malloc and its kin; never refused under a sanitizer.
    };
    struct Plan {
        Source source = Source::cpp;
        long refused = 0;       ///< Which request from now on is refused, 0 for the first.
        bool persists = false;  ///< So are all that follow it.
    };

    explicit RefusedMemory(Plan plan);
    ~RefusedMemory() { end(); }
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;

    /// Refuses no more: for those who want to tell what became of it.
    static void end() noexcept;

    /// Whether the newest object refused anything.
    [[nodiscard]] static bool wasRefused() noexcept;

    /// How many pieces of memory that `source` asked for are not given back.
    [[nodiscard]] static long live(Source source) noexcept;
};

}  // namespace quillmere::test
