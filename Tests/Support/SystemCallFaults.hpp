#pragma once

#include <cstddef>
#include <limits>
#include <string>

namespace quillmere::test {

/// While it lives, makes the process's system calls on files behave badly: one of them fails, writes and reads are
/// cut short, every other one is interrupted. One at a time.
///
/// A program has it by compiling SystemCallFaults.cpp into itself, whose functions then stand before the C library's:
/// open, openat, read, pread, write, pwrite, fsync, close, fstat, fstatat, fchmod, ftruncate, mkdir, renameat,
/// renameat2, linkat and unlinkat, as called by the library's own code (the C library's inner calls go their own way).
class SystemCallFaults {
public:
    struct Plan {
        int failing = 0;        ///< Which call from now on fails, 1 for the first; 0 for none.
        int error = 0;          ///< The `errno` it fails with.
        std::string call = {};  ///< Count and fail calls of this name only; empty for all.
        std::size_t mostBytes = std::numeric_limits<std::size_t>::max();  ///< No read or write moves more.
        bool interrupts = false;  ///< Every other read or write fails with `EINTR` first.
    };

    explicit SystemCallFaults(Plan plan);
    ~SystemCallFaults();
    SystemCallFaults(const SystemCallFaults&) = delete;
    SystemCallFaults& operator=(const SystemCallFaults&) = delete;

    /// The name of the call that failed; empty if there were fewer calls.
    [[nodiscard]] std::string struck() const;

    /// How many calls were counted.
    [[nodiscard]] int count() const;
};

}  // namespace quillmere::test
