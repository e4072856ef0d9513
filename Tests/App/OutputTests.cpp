#include "App/Output.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::app {
namespace {

using test::RecordedCall;
using test::SystemCallFaults;
using testing::ElementsAre;
using testing::IsEmpty;

/// A verb that makes a file for its user.
struct Maker {
    const char* name;
    std::function<void(const std::filesystem::path& file, bool mayReplace)> make;
};

void writeText(const std::filesystem::path& file, bool mayReplace) {
    writeOutput(file, std::string(5000, 'n'), mayReplace);
}

void writeSound(const std::filesystem::path& file, bool mayReplace) {
    OutputFile output(file, mayReplace);
    WAVWriter wav(output.temporary(), 48000, 2);
    wav.write(std::vector<std::int16_t>(5000, 7));
    wav.finish();
    output.moveIntoPlace();
}

class OutputTests : public testing::TestWithParam<Maker> {
protected:
    /// The whole file that is made.
    [[nodiscard]] static std::string made() {
        const test::TemporaryFolder folder;
        GetParam().make(folder.path() / "made", false);
        return folder.content("made");
    }

    test::TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "made";
};

TEST_P(OutputTests, WhicheverCallFailsTheOldFileIsThereOrTheNewOneWhole) {
    SystemCallFaults::syncNothing();
    const auto whole = made();
    struct Fault {
        int error;
        bool persists;
        const char* call;
        bool shortens;
    };
    for (const auto& fault :
         {Fault{EIO, false, "", false}, Fault{ENOSPC, false, "", false}, Fault{EIO, true, "", false},
          Fault{ENOSPC, true, "", false}, Fault{ENOSPC, true, "write", true}, Fault{ENOSPC, true, "pwrite", true}}) {
        for (const std::string old : {"", "the old one"}) {
            for (int call = 1;; ++call) {
                std::filesystem::remove(file);
                if (!old.empty()) folder.putFile("made", old);
                std::string error;
                std::string struck;
                bool mayLeaveRests = false;
                {
                    const SystemCallFaults faults({.failing = call,
                                                   .error = fault.error,
                                                   .call = fault.call,
                                                   .persists = fault.persists,
                                                   .shortens = fault.shortens});
                    try {
                        GetParam().make(file, !old.empty());
                    } catch (const Error& caught) {
                        error = caught.what();
                    }
                    struck = faults.struck();
                    mayLeaveRests = faults.struckARemoval();
                }
                SCOPED_TRACE("call " + std::to_string(call) + ", " + struck + (fault.persists ? " and on; " : "; ") +
                             error);
                const auto now = std::filesystem::exists(file) ? folder.content("made") : "";

                EXPECT_TRUE(now == whole || (!error.empty() && now == old)) << now.size() << " bytes";
                EXPECT_TRUE(error.empty() || !struck.empty());
                for (const auto& name : folder.names()) {
                    EXPECT_TRUE(name == "made" || mayLeaveRests) << name << " was left";
                    if (name != "made") std::filesystem::remove(folder.path() / name);
                }
                if (struck.empty() || HasFailure()) break;
            }
        }
    }
}

TEST_P(OutputTests, TheFileHasItsNameWhenItsBytesAreSafe) {
    for (const bool mayReplace : {false, true}) {
        std::vector<RecordedCall> calls;
        {
            const SystemCallFaults recording({.record = &calls});
            GetParam().make(file, mayReplace);
        }
        int unsynced = 0;
        bool isFolderSafe = false;
        for (const auto& call : calls) {
            if (call.kind == RecordedCall::Kind::write) ++unsynced;
            if (call.kind == RecordedCall::Kind::rename && call.to == file) {
                EXPECT_EQ(unsynced, 0);
                isFolderSafe = false;
            } else if (call.kind == RecordedCall::Kind::sync) {
                unsynced = 0;
                isFolderSafe = true;
            }
        }
        EXPECT_TRUE(isFolderSafe);
    }
}

TEST_P(OutputTests, NothingIsReplacedUnaskedAndNothingButARegularFileEver) {
    const auto other = folder.putFile("other", "somebody else's");
    folder.putFile("made", "the old one");
    EXPECT_THROW(GetParam().make(file, false), Error);
    EXPECT_EQ(folder.content("made"), "the old one");

    std::filesystem::remove(file);
    std::filesystem::create_symlink(other, file);
    for (int call = 1;; ++call) {
        SCOPED_TRACE(call);
        bool isOver = false;
        {
            const SystemCallFaults faults({.failing = call, .error = EIO});
            EXPECT_THROW(GetParam().make(file, true), Error);
            isOver = faults.struck().empty();
        }
        EXPECT_TRUE(std::filesystem::is_symlink(file));
        if (isOver || HasFailure()) break;
    }
    EXPECT_EQ(folder.content("other"), "somebody else's");
    EXPECT_THAT(folder.names(), ElementsAre("made", "other"));
}

TEST_P(OutputTests, WhatComesToStandThereMeanwhileIsReplacedOnlyWhereItMayBe) {
    const auto other = folder.putFile("other", "somebody else's");
    for (const bool isLink : {false, true}) {
        const test::TemporaryFolder place;
        const auto target = place.path() / "made";
        const auto come = [&] {
            if (isLink) {
                std::filesystem::create_symlink(other, target);
            } else {
                place.putFile("made", "somebody else's");
            }
        };
        const SystemCallFaults faults({.failing = 1, .call = "fsync", .meanwhile = come});
        EXPECT_THROW(GetParam().make(target, isLink), Error);

        EXPECT_EQ(std::filesystem::is_symlink(target), isLink);
        EXPECT_THAT(place.names(), ElementsAre("made"));
        EXPECT_EQ(place.content("made"), "somebody else's");
    }
}

TEST_P(OutputTests, AFileThatIsReplacedKeepsItsPermissions) {
    folder.putFile("made", "private");
    std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    GetParam().make(file, true);

    EXPECT_EQ(std::filesystem::status(file).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

INSTANTIATE_TEST_SUITE_P(Every, OutputTests, testing::Values(Maker{"Text", &writeText}, Maker{"Sound", &writeSound}),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace quillmere::app
