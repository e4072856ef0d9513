// What is left, in memory and on disk, when the system refuses any one call of an operation, or all from one on.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Tests/Reliability/Checks.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

struct Fault {
    const char* name;
    int error;
    bool persists;
    bool shortens;
};

// The short selection has one of each kind; the others differ from them by a number. Under a sanitizer, which looks for
// bad memory on the ways out and makes each run several times as long, those two that leave on different ways will do,
// and of the second, which takes the same ways many times, each third call.
const std::vector<Fault>& faults() {
    static const std::vector<Fault> two = {{"EIO once", EIO, false, false},
                                           {"ENOSPC from then on", ENOSPC, true, false}};
    static const std::vector<Fault> few = {{"EIO once", EIO, false, false},
                                           {"ENOSPC from then on", ENOSPC, true, false},
                                           {"EINTR once", EINTR, false, false},
                                           {"short", 0, false, true}};
    static const std::vector<Fault> all = {
        {"EIO once", EIO, false, false},       {"EIO from then on", EIO, true, false},
        {"ENOSPC once", ENOSPC, false, false}, {"ENOSPC from then on", ENOSPC, true, false},
        {"EACCES once", EACCES, false, false}, {"EACCES from then on", EACCES, true, false},
        {"EROFS once", EROFS, false, false},   {"EROFS from then on", EROFS, true, false},
        {"EINTR once", EINTR, false, false},   {"short", 0, false, true}};
    if (std::getenv("QUILLMERE_EVERY_FAULT") != nullptr) return all;
    return isSanitized ? two : few;
}

class FailingCalls : public testing::TestWithParam<Operation> {};

TEST_P(FailingCalls, LeaveTheOldOrTheNewAndAStoreThatGoesOn) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    int runs = 0;
    for (const auto& fault : faults()) {
        for (int failing = 1;; failing += isSanitized && fault.persists ? 3 : 1) {
            ASSERT_LT(failing, 2000) << "the operation does not end";
            auto session = stage.begin();
            Stage::Outcome outcome;
            std::string struck;
            std::vector<RecordedCall> calls;
            {
                const SystemCallFaults faults({.failing = failing,
                                               .error = fault.error,
                                               .persists = fault.persists,
                                               .shortens = fault.shortens,
                                               .record = &calls});
                outcome = stage.act(*session);
                struck = faults.struck();
                outcome.isDisturbed = !struck.empty() && !fault.shortens;
                outcome.mayLeaveRests = faults.struckARemoval() || (fault.persists && !struck.empty());
            }
            SCOPED_TRACE(std::string(fault.name) + ", call " + std::to_string(failing) + ", " + struck +
                         (outcome.error.empty() ? "" : "; " + outcome.error));
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
