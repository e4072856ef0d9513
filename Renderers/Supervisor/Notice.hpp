#pragma once

#include <cstdint>

namespace quillmere::supervisor {

/// The descriptor at which the supervisor finds its end of the control socket.
inline constexpr int controlDescriptor = 3;

/// What the supervisor tells its host over the control socket, one message each: first `started` or `notStarted`, after
/// `started` one of the others once the engine itself has ended. Both programs come from one build.
struct Notice {
    enum class Kind : std::int32_t {
        started,     ///< `value`: the engine's process id, which is its process group's too.
        notStarted,  ///< `value`: the system's error number.
        exited,      ///< `value`: the exit status.
        signalled,   ///< `value`: the signal that ended it.
    };
    Kind kind = Kind::started;
    std::int32_t value = 0;
};

}  // namespace quillmere::supervisor
