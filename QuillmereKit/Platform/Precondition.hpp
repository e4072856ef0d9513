#pragma once

#include <string_view>

namespace quillmere {

/// Prints `message` with the place `file:line` to standard error and aborts the process. Never returns.
///
/// For programming errors only: what a file, a disk or a renderer does is an exception, never this.
/// The place is the caller's, unless a message has to name a fixed one. Thread-safe.
[[noreturn]] void fatalError(std::string_view message, const char* file = __builtin_FILE(),
                             int line = __builtin_LINE()) noexcept;

/// Stops the process with `rule` and the caller's place unless `holds`, in every build. Thread-safe.
inline void precondition(bool holds, std::string_view rule, const char* file = __builtin_FILE(),
                         int line = __builtin_LINE()) noexcept {
    if (!holds) [[unlikely]] {
        fatalError(rule, file, line);
    }
}

}  // namespace quillmere
