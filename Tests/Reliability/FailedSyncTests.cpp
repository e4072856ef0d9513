// What a later save makes of a sync that failed: the system may have dropped what it could not write, and says of the
// next sync that all is well.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Tests/Reliability/Checks.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

class FailedSyncs : public testing::TestWithParam<Operation> {};

TEST_P(FailedSyncs, AreNotMadeGoodByTheNext) {
    SystemCallFaults::syncNothing();
    const Stage stage(GetParam());
    for (const bool persists : {false, true}) {
        for (int failing = 1;; ++failing) {
            SCOPED_TRACE("sync " + std::to_string(failing) + (persists ? " and all after it" : ""));
            auto session = stage.begin();
            std::vector<RecordedCall> calls;
            Stage::Outcome outcome;
            std::string struck;
            {
                const SystemCallFaults faults(
                    {.failing = failing, .error = EIO, .call = "fsync", .persists = persists, .record = &calls});
                outcome = stage.act(*session);
                struck = faults.struck();
            }
            {
                const SystemCallFaults undisturbed({.record = &calls});
                const bool isDone = outcome.error.empty() && session->isSaved();
                if (!isDone) static_cast<void>(stage.act(*session));
                session->change();
            }
            stage.checkListedIsSafe(calls);
            if (HasFailure()) return;
            if (struck.empty()) break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Every, FailedSyncs, testing::ValuesIn(operations()),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::test
