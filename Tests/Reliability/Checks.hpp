#pragma once

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "Tests/Reliability/Operations.hpp"
#include "Tests/Support/SystemCallFaults.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {

/// For the names of tests.
void PrintTo(const Operation& operation, std::ostream* out);

/// A folder in which one operation is done again and again, always from the same beginning, and what must hold after
/// it, however it ended. All checks are expectations of the running test.
class Stage {
public:
    /// Prepares the operation's beginning, and does it once undisturbed, to learn what it makes.
    explicit Stage(const Operation& operation);

    [[nodiscard]] const Operation& operation() const noexcept { return operation_; }
    [[nodiscard]] const std::filesystem::path& home() const noexcept { return home_; }
    /// What the folder holds before, when the store is open already.
    [[nodiscard]] const Tree& before() const noexcept { return before_; }

    /// What it holds after.
    [[nodiscard]] const Tree& after() const noexcept { return after_; }

    /// Puts the beginning in place and opens the store.
    [[nodiscard]] std::unique_ptr<Session> begin() const;

    /// How an operation in this process ended.
    struct Outcome {
        std::string error = {};       ///< What it threw; empty for nothing.
        bool isInPlace = false;       ///< The error says that the change is in place.
        bool isDisturbed = false;     ///< A call failed.
        bool isOutOfMemory = false;   ///< It ended with that, and does not say how far it had come.
        bool isShortForGood = false;  ///< Memory was short to its end, so that nothing could be taken back.
        bool mayLeaveRests = false;   ///< Removing a file failed.
    };
    /// Does the operation and tells how it ended; anything but the library's own errors is a failed expectation.
    [[nodiscard]] Outcome act(Session& session) const;

    /// After the operation was done in this process, and calls succeed again: its promise, the files, that the same
    /// store goes on working, and that the next start finds it all. Closes the store.
    void checkAfterFailure(std::unique_ptr<Session> session, const Outcome& outcome) const;

    /// After the operation said that it was done: what it wrote would survive a power cut, and so would every piece of
    /// audio that it lists.
    void checkIsSafe(const std::vector<RecordedCall>& calls) const;

    /// After some calls of the operation and of later ones, of which some failed: what is listed now, with its audio,
    /// would survive a power cut.
    void checkListedIsSafe(const std::vector<RecordedCall>& calls) const;

    /// After the process or the machine stopped during the operation (or, if it `wasDone`, after it): the files, what
    /// the next start finds, and that it goes on working.
    void checkAfterStop(bool wasDone, bool lostPower) const;

private:
    void checkFiles(const Tree& tree, bool mayHaveRests, bool lostPower) const;
    void checkPermissions() const;
    [[nodiscard]] bool mayGo(const std::string& path) const;
    void checkNothingLost(const Tree& tree, const Lines& wanted) const;
    [[nodiscard]] Lines unlisted() const;
    [[nodiscard]] Lines lines(const Tree& tree) const;
    [[nodiscard]] Lines withAudio(const Lines& lines, const Tree& tree) const;
    void checkNextStart(const Tree& tree) const;
    void checkNothingIsHeld() const;

    const Operation& operation_;
    const std::ptrdiff_t descriptors_;  ///< Open before the first session, and after every one.
    TemporaryFolder folder_;
    const std::filesystem::path home_ = folder_.path() / "home";
    Tree prepared_;
    Tree before_;
    Tree after_;
    Permissions permissionsBefore_;
    Permissions permissionsAfter_;
    Lines linesBefore_;
    Lines linesMidway_;  // those before, where there is nothing between
    Lines linesAfter_;
    Lines memoryAfter_;  // those after, and what the file leaves out
};

/// Whether a path is that of a file or folder that only a crash leaves: half written, or half removed, and known as
/// such by its name.
[[nodiscard]] bool isRest(const std::string& path);

}  // namespace quillmere::test
