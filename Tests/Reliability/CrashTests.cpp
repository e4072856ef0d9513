// What the next start finds after the process was killed at any of its system calls.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Tests/Reliability/Checks.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

using Kill = SystemCallFaults::Plan::Kill;

/// The process's own part. Its end is as sudden as a kill for all that is on disk, and nothing gets past it into the
/// test's own frames.
[[noreturn]] void workUntilKilled(const Stage& stage, int call, Kill kill) noexcept {
    try {
        const auto session = stage.begin();
        const SystemCallFaults faults({.failing = call, .kills = kill});
        const auto outcome = stage.act(*session);
        if (outcome.error.empty() && session->isSaved()) ::_exit(0);
        std::cerr << "neither done nor killed: " << outcome.error << "\n";
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
    }
    ::_exit(3);
}

/// Does the operation in a process of its own, which is killed at one call. Returns whether the operation was done.
bool runAndKill(const Stage& stage, int call, Kill kill) {
    const pid_t child = fork();
    if (child == 0) workUntilKilled(stage, call, kill);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    const bool wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    const bool wasDone = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    EXPECT_TRUE(wasKilled || wasDone) << "the process ended by itself, with status " << status;
    return wasDone;
}

class Crashes : public testing::TestWithParam<Operation> {};

TEST_P(Crashes, AtAnyCallLeaveTheOldOrTheNew) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    int kills = 0;
    // Killed before a call or after the one before it is the same to the disk, but for where the counting begins and
    // ends: under a sanitizer, one of the two and every other call will do.
    for (const auto kill : isSanitized ? std::vector{Kill::after} : std::vector{Kill::before, Kill::after}) {
        for (int call = 1;; call += isSanitized ? 2 : 1) {
            SCOPED_TRACE((kill == Kill::before ? "killed before call " : "killed after call ") + std::to_string(call));
            const bool wasDone = runAndKill(stage, call, kill);
            stage.checkAfterStop(wasDone, false);
            if (HasFailure()) return;
            if (wasDone) break;
            ++kills;
        }
    }
    EXPECT_GT(kills, isSanitized ? 2 : 10);
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) std::cout << GetParam().name << ": " << kills << " kills\n";
}

INSTANTIATE_TEST_SUITE_P(Every, Crashes, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::test
