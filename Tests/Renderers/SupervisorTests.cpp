// The supervisor program by itself, without the renderer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "Renderers/Supervisor/Notice.hpp"
#include "Renderers/SupervisorProgram.hpp"
#include "Tests/Renderers/ProcessRendererFixture.hpp"

namespace quillmere::test {
namespace {

using supervisor::Notice;

/// One run of the supervisor over a shell command.
class SupervisorRun {
public:
    explicit SupervisorRun(const std::vector<std::string>& words, bool hasControl = true) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
        control_ = ends[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        if (hasControl) posix_spawn_file_actions_adddup2(&actions, ends[1], supervisor::controlDescriptor);
        std::vector<std::string> command{QUILLMERE_SUPERVISOR};
        command.insert(command.end(), words.begin(), words.end());
        std::vector<char*> arguments;
        for (auto& word : command) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        if (::posix_spawn(&process_, QUILLMERE_SUPERVISOR, &actions, nullptr, arguments.data(), environ) != 0) {
            std::abort();
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
    }
    ~SupervisorRun() {
        leave();
        if (!status_) wait();
    }
    SupervisorRun(const SupervisorRun&) = delete;
    SupervisorRun& operator=(const SupervisorRun&) = delete;

    /// The next notice; nothing at the supervisor's end.
    std::optional<Notice> next() const {
        Notice notice;
        if (::recv(control_, &notice, sizeof notice, 0) != sizeof notice) return std::nullopt;
        return notice;
    }
    /// What the host's death does.
    void leave() {
        if (control_ >= 0) ::close(control_);
        control_ = -1;
    }
    void askToStop() const { ::shutdown(control_, SHUT_WR); }
    int wait() {
        int status = 0;
        ::waitpid(process_, &status, 0);
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return *status_;
    }
    [[nodiscard]] pid_t process() const { return process_; }

private:
    int control_ = -1;
    pid_t process_ = -1;
    std::optional<int> status_;
};

std::vector<std::string> shell(const std::string& script, const std::string& grace = "50") {
    return {grace, "0", "1", "0", "/bin/sh", "-c", script};
}

TEST(SupervisorTests, TellsHowTheEngineEnded) {
    SupervisorRun exits(shell("exit 7"));
    EXPECT_EQ(exits.next()->kind, Notice::Kind::started);
    const auto exited = exits.next();
    ASSERT_TRUE(exited);
    EXPECT_EQ(exited->kind, Notice::Kind::exited);
    EXPECT_EQ(exited->value, 7);
    EXPECT_FALSE(exits.next());
    EXPECT_EQ(exits.wait(), 0);

    SupervisorRun dies(shell("kill -USR1 $$"));
    EXPECT_EQ(dies.next()->kind, Notice::Kind::started);
    const auto signalled = dies.next();
    ASSERT_TRUE(signalled);
    EXPECT_EQ(signalled->kind, Notice::Kind::signalled);
    EXPECT_EQ(signalled->value, SIGUSR1);
}

TEST(SupervisorTests, TellsWhyTheEngineDidNotStart) {
    SupervisorRun run({"50", "0", "1", "0", "/nonexistent/engine"});

    const auto notice = run.next();

    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->kind, Notice::Kind::notStarted);
    EXPECT_EQ(notice->value, ENOENT);
    EXPECT_FALSE(run.next());
}

/// An engine that ignores everything polite, and shows that it lives.
struct StubbornEngineTests : testing::Test {
    TemporaryFolder folder;
    VisibleProcesses processes{folder};
    SupervisorRun run{shell("trap '' TERM; exec 9<'" + processes.lock() + "'; flock -s 9; printf x > '" +
                            processes.fifo() + "'; while :; do sleep 1000; done")};

    StubbornEngineTests() { processes.awaitBirths(1); }

    void expectKilled() {
        EXPECT_EQ(run.wait(), 0);
        EXPECT_TRUE(processes.areGone());
    }
};

TEST_F(StubbornEngineTests, IsKilledWhenTheHostAsks) {
    run.askToStop();
    expectKilled();
}

TEST_F(StubbornEngineTests, IsKilledWhenTheHostIsGone) {
    run.leave();
    expectKilled();
}

TEST_F(StubbornEngineTests, IsKilledWhenTheSupervisorIsAskedToEnd) {
    EXPECT_EQ(run.next()->kind, Notice::Kind::started);

    ::kill(run.process(), SIGTERM);

    const auto end = run.next();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, Notice::Kind::signalled);
    EXPECT_EQ(end->value, SIGKILL);
    expectKilled();
}

TEST(SupervisorTests, WhenItIsKilledTheSystemEndsTheEngine) {
    const TemporaryFolder folder;
    const VisibleProcesses processes{folder};
    SupervisorRun run(shell("trap '' TERM; exec 9<'" + processes.lock() + "'; flock -s 9; printf x > '" +
                            processes.fifo() + "'; exec sleep 300"));
    processes.awaitBirths(1);

    ::kill(run.process(), SIGKILL);
    run.wait();

    processes.awaitDeaths();
}

TEST(SupervisorTests, IsNotStartedByHand) {
    EXPECT_EQ(SupervisorRun({}).wait(), 2);
    EXPECT_EQ(SupervisorRun({"50", "0", "1", "0", "/bin/true"}, false).wait(), 2);
    for (const auto& words : std::vector<std::vector<std::string>>{{"50", "0", "1", "0"},
                                                                   {"-1", "0", "1", "0", "/bin/true"},
                                                                   {"50", "20", "1", "0", "/bin/true"},
                                                                   {"50", "0", "0", "0", "/bin/true"},
                                                                   {"50", "0", "nan", "0", "/bin/true"},
                                                                   {"50", "0", "1", "x", "/bin/true"},
                                                                   {"5x", "0", "1", "0", "/bin/true"}}) {
        EXPECT_EQ(SupervisorRun(words).wait(), 2) << words[0];
    }
}

TEST(SupervisorTests, IsFoundFromTheBuildTree) {
    EXPECT_EQ(findSupervisorProgram(), std::filesystem::path(QUILLMERE_SUPERVISOR));
}

TEST(SupervisorTests, AProgramIsFoundByPathOrAlongThePath) {
    EXPECT_EQ(findProgram("/bin/sh"), std::filesystem::path("/bin/sh"));
    EXPECT_TRUE(findProgram("sh").value().is_absolute());
    EXPECT_FALSE(findProgram(""));
    EXPECT_FALSE(findProgram("no-such-program-anywhere"));
    EXPECT_FALSE(findProgram("/bin"));
    EXPECT_FALSE(findProgram("/etc/passwd"));
}

}  // namespace
}  // namespace quillmere::test
