#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "Renderers/LineSplitter.hpp"
#include "Renderers/Supervisor/Notice.hpp"
#include "Renderers/TextTail.hpp"

namespace quillmere {

/// Hears what an engine says. Called on the thread that runs the engine; an exception ends the engine.
class EngineListener {
public:
    enum class Heard {
        nothing,    ///< The line means nothing.
        something,  ///< The engine lives and works.
        theLast,    ///< Nothing is to follow but the engine's end.
    };
    using Clock = std::chrono::steady_clock;

    virtual ~EngineListener() = default;

    /// Takes one line of the engine's standard output, without its line feed.
    virtual Heard hear(std::string_view line) = 0;

    /// Passes on what is due; returns when there will be more to pass on, if anything waits.
    virtual std::optional<Clock::time_point> report(Clock::time_point now) = 0;
};

/// One run of an engine under the supervisor, from its start until no process of it is left; of an engine that kills
/// the supervisor, none in its process group.
///
/// The supervisor and the engine are tied to this process by two descriptors that the system closes for it when it ends
/// in whatever way: the writing end of the engine's standard input and one end of the supervisor's control socket.
/// Nothing else of this process is inherited. Not thread-safe; used once.
class EngineRun {
public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        std::filesystem::path supervisor;
        std::vector<std::string> command;  ///< A program's path and its arguments.
        int folder = -1;                   ///< The folder to run in, open; -1 is the root.
        std::filesystem::path folderPath;  ///< Its path, given to the engine as the place for temporary files.
        int niceness = 0;                  ///< 0...19
        double share = 1;                  ///< The share of wall time that the engine may work, above 0 up to 1.
        std::chrono::milliseconds burst{0};
        std::chrono::milliseconds grace{0};
        std::chrono::milliseconds silenceLimit{0};  ///< Without a line that means something.
        std::chrono::milliseconds lingerLimit{0};   ///< Between the last line or the output's end and the engine's.
        std::size_t lineLimit = 0;
        std::uint64_t outputLimit = 0;  ///< Bytes on standard output and standard error together.
        int wake = -1;                  ///< Readable once the run is cancelled.
    };

    /// Starts the engine. Throws `EngineFailure` (notStarted) or `FileError`.
    explicit EngineRun(const Settings& settings);

    /// Ends what still runs and waits for it.
    ~EngineRun();
    EngineRun(const EngineRun&) = delete;
    EngineRun& operator=(const EngineRun&) = delete;

    /// Sends the request, passes the engine's lines to the listener, and returns once the engine has ended with status
    /// 0 and all it started is gone. Throws, also only then, `CancellationError` if the run was cancelled, what the
    /// listener threw, or `EngineFailure`.
    void run(std::string_view request, EngineListener& listener);

    /// The end of what the engine wrote to its standard error.
    [[nodiscard]] std::string errorText() const { return errors_.text(); }

private:
    void start();
    void turn(EngineListener& listener);
    [[nodiscard]] int timeout() const;
    void writeRequest();
    void readOutput(EngineListener& listener);
    void readErrors();
    void readNotices();
    void count(std::size_t bytes);
    void hear(EngineListener& listener, std::string_view line);
    void checkLimits(Clock::time_point now) const;
    void drain(EngineListener& listener);
    void checkEnd() const;
    void fail() noexcept;
    void stop() noexcept;
    void expectEnd() noexcept;
    void lookAfterSupervisor() const noexcept;
    void awaitEnd() noexcept;

    const Settings settings_;
    pid_t supervisor_ = -1;
    Descriptor input_;        // the engine's lifeline
    Descriptor inputReader_;  // its other end, kept open too: writing to an engine that does not read raises no signal
    Descriptor output_;
    Descriptor errorOutput_;
    Descriptor control_;
    std::vector<char> buffer_;  // for reading
    std::string_view request_;  // what is still to be written
    LineSplitter lines_;
    TextTail errors_;
    std::uint64_t outputBytes_ = 0;
    Clock::time_point lastHeard_;
    std::optional<Clock::time_point> lastLine_;  // when the engine had nothing more to say
    std::optional<Clock::time_point> nextReport_;
    std::optional<pid_t> engine_;
    std::optional<supervisor::Notice> end_;
    std::optional<Clock::time_point> deadline_;  // for the family, once it has to end
    std::exception_ptr failure_;
    bool isCancelled_ = false;
    bool isStopping_ = false;
    bool isLost_ = false;
};

}  // namespace quillmere
