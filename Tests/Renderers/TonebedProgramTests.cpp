#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Tests/Renderers/TonebedPieces.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

extern char** environ;

namespace quillmere::test {
namespace {

using nlohmann::json;

/// The engine as a process, with pipes to its three streams.
class EngineProcess {
public:
    enum class Output { empty, full };

    /// `full`: the pipe takes no more, so that the engine cannot say a word.
    explicit EngineProcess(std::vector<std::string> arguments = {}, Output output = Output::empty) {
        std::array<std::array<int, 2>, 3> pipes{};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int stream = 0; stream < 3; ++stream) {
            auto& ends = pipes[static_cast<std::size_t>(stream)];
            if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
            posix_spawn_file_actions_adddup2(&actions, ends[stream == 0 ? 0 : 1], stream);
        }
        if (output == Output::full) fill(pipes[1][1]);
        std::string program = QUILLMERE_TONEBED;
        std::vector<char*> texts = {program.data()};
        for (auto& argument : arguments) texts.push_back(argument.data());
        texts.push_back(nullptr);
        if (posix_spawn(&process_, program.c_str(), &actions, nullptr, texts.data(), environ) != 0) std::abort();
        posix_spawn_file_actions_destroy(&actions);
        close(pipes[0][0]);
        close(pipes[1][1]);
        close(pipes[2][1]);
        input_ = pipes[0][1];
        fcntl(input_, F_SETPIPE_SZ, 1);  // one page: there is room again only when all of it is read
        output_ = pipes[1][0];
        error_ = pipes[2][0];
        signal(SIGPIPE, SIG_IGN);
    }
    ~EngineProcess() {
        if (!status_) kill(process_, SIGKILL);
        (void)status();
        closeInput();
        closeOutput();
        close(error_);
    }
    EngineProcess(const EngineProcess&) = delete;
    EngineProcess& operator=(const EngineProcess&) = delete;

    void send(std::string_view text) {
        while (!text.empty()) {
            const auto count = write(input_, text.data(), text.size());
            if (count <= 0) return;  // it has ended already, which the test will see
            text.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    /// Waits until the engine has read all that was sent.
    void awaitItsReading() const {
        pollfd watched{input_, POLLOUT, 0};
        while (poll(&watched, 1, -1) < 0) {
        }
    }
    void closeInput() {
        if (input_ >= 0) close(input_);
        input_ = -1;
    }
    void closeOutput() {
        if (output_ >= 0) close(output_);
        output_ = -1;
    }
    void signalEnd(int number) const { kill(process_, number); }

    /// The next line of its output; nothing at the end.
    std::optional<std::string> line() {
        while (true) {
            const auto end = pending_.find('\n');
            if (end != std::string::npos) {
                std::string line = pending_.substr(0, end);
                pending_.erase(0, end + 1);
                return line;
            }
            std::array<char, 4096> bytes;
            const auto count = read(output_, bytes.data(), bytes.size());
            if (count <= 0) return std::nullopt;
            pending_.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }

    /// Reads lines until one holds `text`. False if the output ended first.
    bool reaches(std::string_view text) {
        while (const auto next = line()) {
            if (next->find(text) != std::string::npos) return true;
        }
        return false;
    }

    std::string allErrors() {
        std::string text;
        std::array<char, 4096> bytes;
        while (true) {
            const auto count = read(error_, bytes.data(), bytes.size());
            if (count <= 0) return text;
            text.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }

    /// Waits for its end: the exit status, or 256 and the number of the signal that ended it.
    int status() {
        if (!status_) {
            int raw = 0;
            waitpid(process_, &raw, 0);
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 256 + WTERMSIG(raw);
        }
        return *status_;
    }

private:
    static void fill(int pipe) {
        fcntl(pipe, F_SETFL, O_NONBLOCK);
        for (const char byte = '\n'; write(pipe, &byte, 1) == 1;) {
        }
        fcntl(pipe, F_SETFL, 0);
    }

    pid_t process_ = -1;
    int input_ = -1;
    int output_ = -1;
    int error_ = -1;
    std::string pending_;
    std::optional<int> status_;
};

struct TonebedProgramTests : testing::Test {
    TemporaryFolder folder;

    std::string request(double seconds, double dutyCycle = 1) const {
        const auto identity = playableMoods().front().identity(BlendStep(0), 1, "sa3_medium_mlx_v2").value();
        const json value = {{"protocol", 1},
                            {"request", "render"},
                            {"identity", json::parse(encodeJSON(identity, JSONWriter::Form::compact))},
                            {"seconds", seconds},
                            {"frames", static_cast<std::int64_t>(seconds * 48000)},
                            {"sampleRate", 48000},
                            {"channels", 2},
                            {"bitsPerSample", 16},
                            {"pace", "gentle"},
                            {"dutyCycle", dutyCycle},
                            {"folder", folder.path()},
                            {"file", "audio.wav"}};
        return value.dump() + "\n";
    }
};

/// A question for the build of this many bytes, its line's end not counted.
std::string longRequest(std::size_t length) {
    std::string text = R"({"protocol":1,"request":"build"})";
    text.insert(1, length - text.size(), ' ');
    return text;
}

// The share that makes the first rest last for hours: whoever does not stop then never ends.
constexpr double hardlyEver = 1e-5;

TEST_F(TonebedProgramTests, ARequestBecomesAFileAndAResult) {
    EngineProcess engine;
    engine.send(request(1.5));

    EXPECT_TRUE(engine.reaches("result {\"file\":\"audio.wav\",\"seconds\":1.5,"));
    EXPECT_EQ(engine.status(), 0);
    EXPECT_EQ(engine.allErrors(), "");
    EXPECT_EQ(WAVFile(folder.path() / "audio.wav").frames(), 72000);
}

TEST_F(TonebedProgramTests, TheBuildIsAnsweredEvenWhenStandardInputEndsAtOnce) {
    EngineProcess engine;
    engine.send("{\"protocol\":1,\"request\":\"build\"}\n");
    engine.closeInput();

    EXPECT_EQ(engine.line(), "result {\"engineBuild\":\"tonebed-1\"}");
    EXPECT_EQ(engine.line(), std::nullopt);
    EXPECT_EQ(engine.status(), 0);
}

TEST_F(TonebedProgramTests, ARequestThatArrivesInPiecesIsOneRequest) {
    EngineProcess engine;
    engine.send("{\"protocol\":1,");
    engine.send("\"request\":\"build\"}");
    engine.send("\n and what follows is passed over");

    EXPECT_EQ(engine.line(), "result {\"engineBuild\":\"tonebed-1\"}");
    EXPECT_EQ(engine.status(), 0);
}

TEST_F(TonebedProgramTests, TheEndOfStandardInputStopsARest) {
    EngineProcess engine;
    engine.send(request(60, hardlyEver));
    ASSERT_TRUE(engine.reaches("waiting"));
    engine.closeInput();

    EXPECT_EQ(engine.status(), 3);
    EXPECT_EQ(engine.allErrors(), "");
    EXPECT_EQ(folder.names(), std::vector<std::string>{"audio.wav"});
}

TEST_F(TonebedProgramTests, TheEndOfStandardInputStopsTheWork) {
    EngineProcess engine;
    engine.send(request(120));
    engine.closeInput();

    EXPECT_FALSE(engine.reaches("result"));
    EXPECT_EQ(engine.status(), 3);
}

TEST_F(TonebedProgramTests, APoliteSignalStopsItWithTheSameStatus) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        EngineProcess engine;
        engine.send("\n");
        EXPECT_EQ(engine.status(), 2);

        const TemporaryFolder place;
        EngineProcess resting;
        std::string text = request(60, hardlyEver);
        text.replace(text.find(folder.path()), folder.path().native().size(), place.path());
        resting.send(text);
        ASSERT_TRUE(resting.reaches("waiting"));
        resting.signalEnd(number);
        EXPECT_EQ(resting.status(), 3);
        EXPECT_EQ(resting.allErrors(), "");
    }
}

TEST_F(TonebedProgramTests, ASignalBeforeTheRequestStopsItToo) {
    EngineProcess engine;
    // It may not have got so far as to catch the signal; then the signal itself ends it.
    engine.signalEnd(SIGTERM);

    const int status = engine.status();
    EXPECT_TRUE(status == 3 || status == 256 + SIGTERM) << status;
}

TEST_F(TonebedProgramTests, AReaderThatHasGoneEndsItQuietly) {
    EngineProcess engine;
    engine.send(request(60));
    ASSERT_TRUE(engine.reaches("progress"));
    engine.closeOutput();

    EXPECT_EQ(engine.status(), 3);
    EXPECT_EQ(engine.allErrors(), "");
}

TEST_F(TonebedProgramTests, AReaderThatDoesNotReadIsWaitedForUntilAStop) {
    const auto asked = request(120);
    {
        EngineProcess engine({}, EngineProcess::Output::full);
        engine.send(asked);
        engine.awaitItsReading();
        engine.signalEnd(SIGTERM);
        EXPECT_EQ(engine.status(), 3);
    }
    EngineProcess engine({}, EngineProcess::Output::full);
    engine.send(asked);
    engine.awaitItsReading();
    engine.closeInput();
    EXPECT_EQ(engine.status(), 3);
    EXPECT_EQ(folder.names(), std::vector<std::string>{});
}

TEST_F(TonebedProgramTests, WhatIsNoRequestIsRefusedWithStatusTwo) {
    struct Row {
        std::string text;
        const char* complaint;
    };
    const Row rows[] = {
        {"", "quillmere-tonebed: There is no request: standard input is empty. Try --help.\n"},
        {"{\"protocol\":1", "quillmere-tonebed: The request is not a whole line.\n"},
        {"{\"protocol\":3,\"request\":\"build\"}\n", "quillmere-tonebed: Tonebed speaks protocol 1, not 3.\n"},
        {longRequest(1'048'577) + "\n", "quillmere-tonebed: The request is too long.\n"},
        {std::string(1'048'577, 'x'), "quillmere-tonebed: The request is too long.\n"},
    };
    for (const auto& row : rows) {
        EngineProcess engine;
        engine.send(row.text);
        engine.closeInput();
        EXPECT_EQ(engine.allErrors(), row.complaint);
        EXPECT_EQ(engine.status(), 2);
        EXPECT_EQ(engine.line(), std::nullopt);
    }
}

TEST_F(TonebedProgramTests, ARequestMayBeAMebibyteLong) {
    EngineProcess engine;
    engine.send(longRequest(1'048'576) + "\n");

    EXPECT_EQ(engine.line(), "result {\"engineBuild\":\"tonebed-1\"}");
    EXPECT_EQ(engine.status(), 0);
}

TEST_F(TonebedProgramTests, AFileThatCannotBeWrittenIsAFailureWithItsReason) {
    folder.putFile("audio.wav", "mine");
    EngineProcess engine;
    engine.send(request(1));

    EXPECT_EQ(engine.status(), 1);
    EXPECT_NE(engine.allErrors().find("audio.wav"), std::string::npos);
    EXPECT_EQ(folder.content("audio.wav"), "mine");
}

TEST_F(TonebedProgramTests, HelpAndVersionArePoliteAndOtherArgumentsAreNot) {
    EngineProcess help({"--help"});
    EXPECT_TRUE(help.line().value_or("").starts_with("quillmere-tonebed: "));
    EXPECT_TRUE(help.reaches("Exit status"));
    EXPECT_EQ(help.status(), 0);

    EngineProcess version({"--version"});
    EXPECT_EQ(version.line(), "quillmere-tonebed, sound tonebed-1");
    EXPECT_EQ(version.status(), 0);

    EngineProcess other({"--loud"});
    EXPECT_EQ(other.allErrors(), "quillmere-tonebed: it takes no arguments but --help and --version.\n");
    EXPECT_EQ(other.status(), 2);
}

}  // namespace
}  // namespace quillmere::test
