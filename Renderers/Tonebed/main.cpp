#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "Renderers/Tonebed/Engine.hpp"

namespace {

using namespace quillmere::tonebed;

constexpr const char* help =
    "quillmere-tonebed: Quillmere's default engine, a synthesizer of background music.\n"
    "\n"
    "It is started by a program, reads one request (a line of JSON, engine protocol 1) from its\n"
    "standard input and says on its standard output how far it has come. The end of its standard\n"
    "input means: stop now.\n"
    "\n"
    "  --help     show this text\n"
    "  --version  show the version of the sound\n"
    "\n"
    "Exit status: 0 done, 1 the file could not be written, 2 a request that makes no sense,\n"
    "3 stopped before the end.\n";

int signalPipe = -1;

extern "C" void noteSignal(int) {
    const int error = errno;
    const char byte = 0;
    // A full pipe is fine: it already says what is to be said.
    [[maybe_unused]] const auto written = write(signalPipe, &byte, 1);
    errno = error;
}

/// The process itself: standard input and output, and the signals that ask it to end.
class ProcessHost final : public EngineHost {
public:
    ProcessHost() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw quillmere::Error("No pipe could be made.");
        signals_ = ends[0];
        signalPipe = ends[1];
        struct sigaction action {};
        action.sa_handler = noteSignal;
        sigemptyset(&action.sa_mask);
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaction(number, &action, nullptr);
        // A reader that has gone is an error of the write, not the end of the process.
        action.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &action, nullptr);
    }

    /// The first line of standard input without its end, or nothing if the process shall end first.
    /// Throws `RequestError` if there is no whole line, or one without end.
    std::optional<std::string> readLine() {
        std::string line;
        while (true) {
            if (await(-1)) return std::nullopt;
            if (!hasInput_) continue;
            std::array<char, 16384> bytes;
            const auto count = read(STDIN_FILENO, bytes.data(), bytes.size());
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (count <= 0) {
                if (line.empty()) throw RequestError("There is no request: standard input is empty. Try --help.");
                throw RequestError("The request is not a whole line.");
            }
            const std::string_view read(bytes.data(), static_cast<std::size_t>(count));
            const auto end = read.find('\n');
            line += read.substr(0, end);
            if (line.size() > EngineRequest::longestLine) throw RequestError("The request is too long.");
            if (end != std::string_view::npos) return line;
        }
    }

    Duration now() override { return std::chrono::steady_clock::now().time_since_epoch(); }

    bool wait(Duration duration) override {
        const Duration end = now() + duration;
        while (true) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now()).count();
            if (await(left > 0 ? static_cast<int>(left) : 0)) return true;
            if (hasInput_ && inputEnded()) return true;
            if (now() >= end) return false;
        }
    }

    void say(std::string_view line) override {
        std::string text(line);
        text += '\n';
        std::string_view rest = text;
        while (!rest.empty()) {
            // A reader may be slow; waiting for it must not outlast a request to stop.
            if (awaitRoom()) throw OutputClosed();
            const auto count = write(STDOUT_FILENO, rest.data(), rest.size());
            if (count >= 0) {
                rest.remove_prefix(static_cast<std::size_t>(count));
            } else if (errno != EINTR && errno != EAGAIN) {
                throw OutputClosed();
            }
        }
    }

private:
    /// Waits for input, a signal or the time. True for a signal.
    bool await(int milliseconds) {
        std::array<pollfd, 2> watched = {pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{signals_, POLLIN, 0}};
        hasInput_ = false;
        if (poll(watched.data(), watched.size(), milliseconds) <= 0) return false;
        hasInput_ = watched[0].revents != 0;
        return watched[1].revents != 0;
    }

    /// Waits until a line can be written. True if the process shall end instead.
    bool awaitRoom() {
        std::array<pollfd, 3> watched = {pollfd{STDOUT_FILENO, POLLOUT, 0}, pollfd{STDIN_FILENO, 0, 0},
                                         pollfd{signals_, POLLIN, 0}};
        while (true) {
            const int ready = poll(watched.data(), watched.size(), -1);
            if (ready < 0 && errno != EINTR) return true;
            if (ready <= 0) continue;
            if (watched[0].revents != 0) return false;
            // Standard input has ended, or a signal came.
            return true;
        }
    }

    /// Passes over what comes after the request. True at the end of standard input.
    static bool inputEnded() {
        std::array<char, 16384> bytes;
        const auto count = read(STDIN_FILENO, bytes.data(), bytes.size());
        return count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
    }

    int signals_ = -1;
    bool hasInput_ = false;
};

int fail(EngineResult result, std::string_view message) {
    std::fprintf(stderr, "quillmere-tonebed: %.*s\n", static_cast<int>(message.size()), message.data());
    return static_cast<int>(result);
}

int runProcess() {
    try {
        ProcessHost host;
        const auto line = host.readLine();
        if (!line) return static_cast<int>(EngineResult::stopped);
        return static_cast<int>(run(EngineRequest::parse(*line), host));
    } catch (const EngineHost::OutputClosed&) {
        return static_cast<int>(EngineResult::stopped);
    } catch (const RequestError& error) {
        return fail(EngineResult::badRequest, error.what());
    } catch (const std::exception& error) {
        return fail(EngineResult::failed, error.what());
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount == 1) return runProcess();
    const std::string_view argument = arguments[1];
    if (argumentCount == 2 && argument == "--help") return std::fputs(help, stdout) < 0 ? 1 : 0;
    if (argumentCount == 2 && argument == "--version")
        return std::printf("quillmere-tonebed, sound %s\n", engineBuild) < 0;
    return fail(EngineResult::badRequest, "it takes no arguments but --help and --version.");
}
