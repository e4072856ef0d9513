#pragma once

#include <cerrno>
#include <new>
#include <stdexcept>
#include <system_error>

namespace quillmere {

/// Throws unless `holds`: what the module's functions report as bad audio.
inline void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(what);
}

/// The same, where the file may be the reason: a system error that came up while FFmpeg was at work goes first.
inline void require(bool holds, int systemError, const char* what) {
    if (systemError != 0) throw std::system_error(systemError, std::system_category(), what);
    require(holds, what);
}

/// Throws unless there was memory for it.
inline void requireMemory(bool isGiven) {
    if (!isGiven) throw std::bad_alloc();
}

}  // namespace quillmere
