#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace quillmere::test {

/// One system call that changed files, or synced them, and succeeded; or a sync that failed.
struct RecordedCall {
    enum class Kind { open, write, truncate, sync, failedSync, close, rename, link, remove, makeFolder };
    Kind kind = Kind::open;
    int descriptor = -1;              ///< The open file, where the call has one; that of the new one for `open`.
    std::filesystem::path path = {};  ///< The whole path of the name it opens, makes, renames or removes.
    std::filesystem::path to = {};    ///< The new name of `rename` and `link`.
    std::string bytes = {};           ///< What was written.
    off_t offset = 0;                 ///< Where it was written, or the length of `truncate`.
};

/// While it lives, makes the process's system calls on files behave badly: one of them fails, or all from it on, or the
/// process is killed at it; writes and reads are cut short, every other one is interrupted. Or only counts and records
/// them. One at a time.
///
/// A program has it by compiling SystemCallFaults.cpp into itself, whose functions then stand before the C library's:
/// open, openat, read, pread, write, pwrite, fsync, close, stat, lstat, fstat, fstatat, fchmod, ftruncate, fdopendir,
/// readdir, mkdir, mkdirat, rename, renameat, renameat2, link, linkat, unlink, unlinkat, rmdir, readlink, realpath (one
/// call, though it makes many), and fcntl where it locks: as called by the library's own code, the C++ library and
/// other shared ones (the C library's inner calls go their own way).
class SystemCallFaults {
public:
    struct Plan {
        int failing = 0;        ///< Which call from now on is struck, 1 for the first; 0 for none.
        int error = 0;          ///< The `errno` it fails with; 0 for one that is struck, but does not fail.
        std::string call = {};  ///< Count and strike calls of this name only; empty for all.
        std::size_t mostBytes = std::numeric_limits<std::size_t>::max();  ///< No read or write moves more.
        bool interrupts = false;  ///< Every other read or write fails with `EINTR` first.
        bool persists = false;    ///< All counted calls fail from the struck one on.
        bool shortens = false;    ///< The struck call does not fail; if it writes or reads, it moves half the bytes.
        bool hidesKinds = false;  ///< A folder's listing does not say what its entries are, as on some file systems.
        enum class Kill { never, before, after };
        Kill kills = Kill::never;                     ///< The process is killed at the struck call.
        std::function<void()> meanwhile = {};         ///< Done just before the struck call; its own calls do not count.
        std::vector<RecordedCall>* record = nullptr;  ///< Takes what is called while the object lives.
    };

    explicit SystemCallFaults(Plan plan);
    ~SystemCallFaults();
    SystemCallFaults(const SystemCallFaults&) = delete;
    SystemCallFaults& operator=(const SystemCallFaults&) = delete;

    /// The name of the first call that was struck; empty if there were fewer calls.
    [[nodiscard]] std::string struck() const;

    /// Whether a call that removes a file was made to fail.
    [[nodiscard]] bool struckARemoval() const;

    /// How many calls were counted.
    [[nodiscard]] int count() const;

    /// From now on, and outside of plans too, fsync answers without doing anything: for programs that look at what was
    /// asked for, and make thousands of folders on a disk that takes its time.
    static void syncNothing();
};

}  // namespace quillmere::test
