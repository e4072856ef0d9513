// What is left, in memory and on disk, when the system refuses any one call of an operation, or all from one on.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Reliability/Checks.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

struct Fault {
    const char* name;
    int error;
    bool persists = false;
    bool shortens = false;
    const char* call = "";  ///< Only this one; empty for all.
    bool hidesKinds = false;

    /// Whether what was called tries again, or takes it for success (a closed file is closed), so that all goes on as
    /// if nothing had been.
    [[nodiscard]] bool isOvercomeBy(std::string_view struck) const {
        static const std::set<std::string_view> retried = {"open",  "openat", "read",  "pread",
                                                           "write", "pwrite", "fcntl", "close"};
        return error == 0 || (error == EINTR && retried.contains(struck));
    }

    [[nodiscard]] bool strikesAllFromThenOn() const { return persists && std::string_view(call).empty(); }
};

// The short selection has one of each kind; the others differ from them by a number. Under a sanitizer, which looks for
// bad memory on the ways out and makes each run several times as long, those that leave on different ways will do, and
// of "from then on", which takes the same ways many times, each third call.
const std::vector<Fault>& faults() {
    static const Fault once{"EIO once", EIO};
    static const Fault full{"ENOSPC from then on", ENOSPC, true};
    static const Fault halfWritten{"half written, then full", ENOSPC, true, true, "write"};
    static const Fault halfPlaced{"half written at a place, then full", ENOSPC, true, true, "pwrite"};
    static const Fault untold{"EIO once where listings do not tell kinds", EIO, false, false, "fstatat", true};
    static const Fault interrupted{"EINTR once", EINTR};
    static const Fault shortened{"short", 0, false, true};
    static const std::vector<Fault> least = {once, full, halfWritten, halfPlaced};
    static const std::vector<Fault> few = {once, full, halfWritten, halfPlaced, untold, interrupted, shortened};
    static const std::vector<Fault> all = {once,
                                           {"EIO from then on", EIO, true},
                                           {"ENOSPC once", ENOSPC},
                                           full,
                                           halfWritten,
                                           halfPlaced,
                                           {"EACCES once", EACCES},
                                           {"EACCES from then on", EACCES, true},
                                           untold,
                                           {"EROFS once", EROFS},
                                           interrupted,
                                           {"EROFS from then on", EROFS, true},
                                           shortened};
    if (std::getenv("QUILLMERE_EVERY_FAULT") != nullptr) return all;
    return isSanitized ? least : few;
}

class FailingCalls : public testing::TestWithParam<Operation> {};

TEST_P(FailingCalls, LeaveTheOldOrTheNewAndAStoreThatGoesOn) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    int runs = 0;
    for (const auto& fault : faults()) {
        for (int failing = 1;; failing += isSanitized && fault.strikesAllFromThenOn() ? 3 : 1) {
            ASSERT_LT(failing, 2000) << "the operation does not end";
            auto session = stage.begin();
            Stage::Outcome outcome;
            std::string struck;
            std::vector<RecordedCall> calls;
            {
                const SystemCallFaults faults({.failing = failing,
                                               .error = fault.error,
                                               .call = fault.call,
                                               .persists = fault.persists,
                                               .shortens = fault.shortens,
                                               .hidesKinds = fault.hidesKinds,
                                               .record = &calls});
                outcome = stage.act(*session);
                struck = faults.struck();
                outcome.isDisturbed = !struck.empty() && !fault.isOvercomeBy(struck);
                outcome.mayLeaveRests = faults.struckARemoval() || (fault.strikesAllFromThenOn() && !struck.empty());
            }
            SCOPED_TRACE(std::string(fault.name) + ", call " + std::to_string(failing) + ", " + struck +
                         (outcome.error.empty() ? "" : "; " + outcome.error));
            const bool strikesEveryCall = std::string_view(fault.call).empty();
            EXPECT_TRUE(failing > 1 || !strikesEveryCall || !struck.empty()) << "the operation makes no call";
            if (outcome.error.empty() && session->isSaved()) stage.checkIsSafe(calls);
            stage.checkAfterFailure(std::move(session), outcome);
            ++runs;
            if (struck.empty()) break;
        }
    }
    RecordProperty("runs", runs);
    if (std::getenv("QUILLMERE_FIGURES") != nullptr) std::cout << GetParam().name << ": " << runs << " failing calls\n";
}

INSTANTIATE_TEST_SUITE_P(Every, FailingCalls, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::test
