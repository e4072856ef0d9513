#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Tests/Reliability/Tree.hpp"

namespace quillmere::test {

/// Entries of a store as text: one JSON object each, with its keys sorted.
using Lines = std::vector<std::string>;

/// An opened store that is about to do something.
class Session {
public:
    virtual ~Session() = default;

    /// Does what the operation is about. Throws what it throws.
    virtual void act() = 0;
    /// Whether `act`, which has returned, says that it did all it was asked to, and that this is on disk.
    [[nodiscard]] virtual bool isSaved() const { return true; }
    /// What the store says went wrong, besides what `act` threw.
    [[nodiscard]] virtual std::optional<std::string> told() const { return std::nullopt; }
    /// Whether there is a store to ask: not if `act` should have opened it and could not.
    [[nodiscard]] virtual bool isOpen() const { return true; }
    /// What the store holds now.
    [[nodiscard]] virtual Lines memory() const = 0;
    /// Adds one more entry, which has to be on disk when this returns; throws if it is not.
    virtual void change() = 0;
    /// Puts what that entry needs where it belongs, as a program does that leaves syncing to the store.
    virtual void prepareChange() {}
};

/// Which of the stores an operation belongs to.
enum class Shelf { loops, moods, vault, file, settings, digests };

/// One thing that a store can be asked to do, and what it may touch. Paths are those in the home folder.
struct Operation {
    std::string name;
    Shelf shelf;
    std::function<void(const std::filesystem::path& home)> prepare;  ///< Makes what is there before.
    std::function<std::unique_ptr<Session>(const std::filesystem::path& home)> begin;
    std::set<std::string> mayGo = {};       ///< Files that it removes.
    std::set<std::string> mayCome = {};     ///< Files that it makes, besides the store's own.
    std::set<std::string> goesAside = {};   ///< Files that it gives a new name, with "unlisted" and the time in it.
    std::set<std::string> isUnsynced = {};  ///< Files that somebody wrote before and did not sync.
    bool changesNothing = false;            ///< It leaves all files as they are, but for locks.
    bool isOpening = false;                 ///< It reads the file anew, so that what it cannot read is not in memory.
    bool isDoneByAnyStart = false;          ///< So that it is done after the next start, whatever became of it.
    bool tellsByAnswer = false;             ///< What it could not do, a false or a smaller number tells.
    bool isExact = true;       ///< An exception that does not say "in place" says that nothing was written.
    bool isPiecemeal = false;  ///< Each entry that it adds may be there or not: what fails for one stops no other.
    /// Where the change takes two steps, what the store's file may hold between them, whatever ends it there.
    std::function<Lines(const std::filesystem::path& home)> midway = {};
    /// What the store's file listed before, and lists no longer when it is done: memory still holds it, and from then
    /// on a copy of the file does.
    std::function<Lines(const std::filesystem::path& home)> unlisted = {};
    /// What is listed has its audio at every moment, and after an exception memory holds what the file does.
    bool keepsAudio = false;
};

/// All of them.
[[nodiscard]] const std::vector<Operation>& operations();

/// The store's file, and what it holds; nothing if it is not there, one odd line if it cannot be read.
[[nodiscard]] std::string mainFile(Shelf shelf);
[[nodiscard]] const Lines& linesIn(Shelf shelf, const std::string& content);
inline const std::string unreadableLine = "unreadable";

/// Opens the store as the next start of the program does.
[[nodiscard]] std::unique_ptr<Session> reopen(Shelf shelf, const std::filesystem::path& home);

/// The entry that `Session::change` adds.
[[nodiscard]] std::string extraLine(Shelf shelf, const std::filesystem::path& home);

/// The audio file that a line of `Shelf::loops` names, as a path in the home folder.
[[nodiscard]] const std::string& audioOf(const std::string& line, const std::filesystem::path& home);

}  // namespace quillmere::test
