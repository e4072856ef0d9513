#pragma once

#include <chrono>
#include <exception>
#include <string_view>

#include "Renderers/Tonebed/EngineRequest.hpp"

namespace quillmere::tonebed {

/// What an engine needs of the process that it runs in.
class EngineHost {
public:
    using Duration = std::chrono::nanoseconds;

    virtual ~EngineHost() = default;

    /// A clock that only goes forward.
    [[nodiscard]] virtual Duration now() = 0;

    /// Waits so long, or only looks where that is zero. True as soon as the engine shall stop.
    [[nodiscard]] virtual bool wait(Duration duration) = 0;

    /// Tells one line to whoever asked. Throws `OutputClosed` if nobody listens any more.
    virtual void say(std::string_view line) = 0;

    /// Nobody reads what the engine says.
    class OutputClosed : public std::exception {};
};

/// How a run ended; the process's exit status.
enum class EngineResult {
    done = 0,
    failed = 1,      ///< The file could not be written.
    badRequest = 2,  ///< The request or the command line makes no sense; nothing was begun.
    stopped = 3,     ///< Standard input ended, or the process was asked to end.
};

/// Carries out one request: says the stages, the partial audio every five seconds of music and the result, rests as
/// the duty cycle wants, and looks before each part of the work, and all through a rest, whether to stop.
/// What it has written stays where it is. Throws `FileError` and what `host` throws.
[[nodiscard]] EngineResult run(const EngineRequest& request, EngineHost& host);

}  // namespace quillmere::tonebed
