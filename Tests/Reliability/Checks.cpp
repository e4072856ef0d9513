#include "Tests/Reliability/Checks.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <ostream>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "Tests/Reliability/Disk.hpp"

namespace quillmere::test {
namespace {

bool isFolder(const std::string& path) { return path.ends_with('/'); }

bool isLock(const std::string& path) { return nameOf(path).ends_with(".lock"); }

/// A copy of a store's file that was kept before it was replaced.
bool isKeptCopy(const std::string& path) {
    return path.find(".unreadable-") != std::string::npos || path.find(".before-") != std::string::npos;
}

/// A file that stood in the way and was given this name.
bool isAside(const std::string& path) { return path.find(".unlisted-") != std::string::npos; }

bool holds(const Lines& lines, const std::string& line) { return std::ranges::find(lines, line) != lines.end(); }

Lines without(Lines lines, const std::string& line) {
    std::erase(lines, line);
    return lines;
}

Lines sorted(Lines lines) {
    std::ranges::sort(lines);
    return lines;
}

/// Equality that tells what differs, and leaves out the rest of the long lines.
testing::AssertionResult isSame(const Lines& is, const Lines& should) {
    if (is == should) return testing::AssertionSuccess();
    auto failure = testing::AssertionFailure() << is.size() << " entries, not " << should.size();
    for (const auto& line : is) {
        if (!holds(should, line)) failure << "\n  not to be there: " << line;
    }
    for (const auto& line : should) {
        if (!holds(is, line)) failure << "\n  missing: " << line;
    }
    return failure;
}

/// But for locks, which anybody leaves who has opened a store.
Tree withoutLocks(Tree tree) {
    std::erase_if(tree, [](const auto& entry) { return isLock(entry.first); });
    return tree;
}

/// How many files this process has open.
std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

}  // namespace

bool isRest(const std::string& path) {
    const auto name = nameOf(isFolder(path) ? std::string_view(path).substr(0, path.size() - 1) : path);
    return isTemporaryFileName(name) || (name.starts_with('.') && name.ends_with(".migration.m4a"));
}

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

Stage::Stage(const Operation& operation) : operation_(operation), descriptors_(openDescriptors()) {
    std::filesystem::create_directories(home_);
    operation.prepare(home_);
    prepared_ = readTree(home_);

    auto session = begin();
    before_ = readTree(home_);
    permissionsBefore_ = readPermissions(home_);
    const auto outcome = act(*session);
    EXPECT_EQ(outcome.error, "");
    EXPECT_TRUE(session->isSaved());
    after_ = readTree(home_);
    permissionsAfter_ = readPermissions(home_);
    linesBefore_ = lines(before_);
    linesAfter_ = lines(after_);
    memoryAfter_ = linesAfter_;
    std::ranges::copy(unlisted(), std::back_inserter(memoryAfter_));
    linesMidway_ = operation.midway ? operation.midway(home_) : linesBefore_;
    // What the operation is said to touch is what it touches.
    EXPECT_EQ(withoutLocks(before_) == withoutLocks(after_), operation.changesNothing);
    for (const auto& path : operation.mayGo) {
        const auto old = before_.find(path);
        EXPECT_TRUE(old != before_.end() && (!after_.contains(path) || after_.at(path) != old->second)) << path;
    }
    for (const auto& path : operation.mayCome) EXPECT_TRUE(after_.contains(path)) << path;
    for (const auto& path : operation.goesAside) EXPECT_TRUE(before_.contains(path) && !after_.contains(path)) << path;
    checkAfterFailure(std::move(session), outcome);
}

std::unique_ptr<Session> Stage::begin() const {
    writeTree(home_, prepared_);
    // Bits that no new file gets.
    const auto main = home_ / mainFile(operation_.shelf);
    if (std::filesystem::exists(main)) std::filesystem::permissions(main, std::filesystem::perms(0640));
    return operation_.begin(home_);
}

Stage::Outcome Stage::act(Session& session) const {
    Outcome outcome;
    try {
        session.act();
    } catch (const FileError& error) {
        outcome.error = error.what();
        outcome.isInPlace = error.isInPlace();
    } catch (const Error& error) {
        outcome.error = error.what();
    }
    return outcome;
}

Lines Stage::unlisted() const { return operation_.unlisted ? operation_.unlisted(home_) : Lines{}; }

Lines Stage::lines(const Tree& tree) const {
    const auto file = tree.find(mainFile(operation_.shelf));
    return file == tree.end() ? Lines{} : linesIn(operation_.shelf, file->second);
}

Lines Stage::withAudio(const Lines& lines, const Tree& tree) const {
    Lines found;
    for (const auto& line : lines) {
        if (line == unreadableLine) continue;
        if (operation_.shelf != Shelf::loops || tree.contains(audioOf(line, home_))) found.push_back(line);
    }
    return found;
}

void Stage::checkFiles(const Tree& tree, bool mayHaveRests, bool lostPower) const {
    const auto main = mainFile(operation_.shelf);
    const auto contentIn = [](const Tree& of, const std::string& path) {
        const auto found = of.find(path);
        return found == of.end() ? nullptr : &found->second;
    };
    const auto now = lines(tree);
    const auto listed = [&] {
        std::set<std::string> files;
        if (operation_.shelf != Shelf::loops) return files;
        for (const auto& line : now) {
            if (line != unreadableLine) files.insert(audioOf(line, home_));
        }
        return files;
    }();

    const bool isDamaged = linesBefore_ == Lines{unreadableLine};
    if (isDamaged) {
        const bool isKept = std::ranges::any_of(tree, [&](const auto& file) {
            return (file.first == main || isKeptCopy(file.first)) && file.second == before_.at(main);
        });
        EXPECT_TRUE(isKept) << "the damaged file is gone";
    }
    const bool isMovedAside = isDamaged && !tree.contains(main);
    const auto isAmong = [](const Lines& lines, const Lines& all) {
        return std::ranges::all_of(lines, [&](const auto& line) { return holds(all, line); });
    };
    const bool isInPart = operation_.isPiecemeal && isAmong(linesBefore_, now) && isAmong(now, linesAfter_);
    if (now != linesBefore_ && now != linesMidway_ && !isMovedAside && !isInPart) {
        EXPECT_TRUE(isSame(now, linesAfter_)) << "the store's file is neither old nor new";
    }
    checkNothingLost(tree, unlisted());
    for (const auto& [path, content] : before_) {
        if (path == main || mayGo(path)) continue;
        if (operation_.goesAside.contains(path)) {
            const auto isThere = [&](const auto& file) {
                return (file.first == path || isAside(file.first)) && file.second == content;
            };
            EXPECT_EQ(std::ranges::count_if(tree, isThere), 1) << path << " is neither there nor aside";
            continue;
        }
        if (lostPower && operation_.isUnsynced.contains(path) && !listed.contains(path)) continue;
        const auto* is = contentIn(tree, path);
        const bool isRight = is != nullptr && (isLock(path) || *is == content);  // a lock may name its holder
        EXPECT_TRUE(isRight) << path << (is ? " has changed" : " is gone");
    }
    for (const auto& [path, content] : tree) {
        if (path == main) continue;
        if (isRest(path)) {
            EXPECT_TRUE(mayHaveRests || before_.contains(path)) << path << " was left";
            continue;
        }
        if (isFolder(path) || isLock(path)) {
            EXPECT_TRUE(before_.contains(path) || after_.contains(path)) << path << " is new";
            continue;
        }
        if (isAside(path) && !operation_.goesAside.empty()) continue;  // looked at above
        if (isKeptCopy(path)) {
            const bool isBefore = before_.contains(main) && content == before_.at(main);
            const bool isMidway = operation_.midway && linesIn(operation_.shelf, content) == linesMidway_;
            EXPECT_TRUE(isBefore || isMidway) << path << " is no copy";
            continue;
        }
        const auto* old = contentIn(before_, path);
        const auto* made = contentIn(after_, path);
        EXPECT_TRUE(old != nullptr || operation_.mayCome.contains(path) || made != nullptr) << path << " is new";
        if (lostPower && operation_.isUnsynced.contains(path) && !listed.contains(path)) continue;
        const bool isWhole = (old != nullptr && *old == content) || (made != nullptr && *made == content);
        // Only what nobody lists may be half there, and only after a power cut: who wrote it had not said it was done.
        const bool mayBeHalf = operation_.mayCome.contains(path) && !listed.contains(path);
        EXPECT_TRUE(isWhole || mayBeHalf) << path << " is neither old nor new";
    }
    // Every piece that is listed is complete, but for those whose files were to go.
    for (const auto& path : listed) {
        const auto* is = contentIn(tree, path);
        const bool mayBeGone = operation_.mayGo.contains(path) && !operation_.mayCome.contains(path);
        if (is == nullptr && mayBeGone && !operation_.keepsAudio) continue;
        const auto* old = contentIn(before_, path);
        const auto* made = contentIn(after_, path);
        EXPECT_TRUE(is != nullptr && ((old != nullptr && *is == *old) || (made != nullptr && *is == *made)))
            << path << " is listed and not whole";
    }
}

/// What is replaced keeps the permissions that it had, and what is new has those it should.
void Stage::checkPermissions() const {
    for (const auto& [path, permissions] : readPermissions(home_)) {
        if (isRest(path) || isKeptCopy(path) || isAside(path)) continue;
        const auto old = permissionsBefore_.find(path);
        const auto made = permissionsAfter_.find(path);
        const bool isRight = (old != permissionsBefore_.end() && permissions == old->second) ||
                             (made != permissionsAfter_.end() && permissions == made->second);
        EXPECT_TRUE(isRight) << path << " has other permissions: " << std::oct << static_cast<unsigned>(permissions);
    }
}

/// Whether an operation removes it, or a folder that it is in.
bool Stage::mayGo(const std::string& path) const {
    return std::ranges::any_of(operation_.mayGo, [&](const std::string& entry) {
        return path == entry || (isFolder(entry) && path.starts_with(entry));
    });
}

void Stage::checkNothingLost(const Tree& tree, const Lines& wanted) const {
    Lines kept;
    const auto main = mainFile(operation_.shelf);
    for (const auto& [path, content] : tree) {
        if (path != main && !isKeptCopy(path)) continue;
        for (const auto& line : linesIn(operation_.shelf, content)) kept.push_back(line);
    }
    for (const auto& line : wanted) EXPECT_TRUE(holds(kept, line)) << "lost: " << line;
}

void Stage::checkAfterFailure(std::unique_ptr<Session> session, const Outcome& outcome) const {
    const auto tree = readTree(home_);
    const auto now = lines(tree);
    checkFiles(tree, outcome.mayLeaveRests, false);
    checkPermissions();

    const bool isDone = outcome.error.empty() && session->isSaved();
    EXPECT_TRUE(isDone || outcome.isDisturbed) << outcome.error;
    // Opening reads what it can and says nothing; the first change tells.
    if (!isDone && outcome.error.empty() && !operation_.isOpening && !operation_.tellsByAnswer) {
        EXPECT_TRUE(session->told()) << "it is not done, and nobody is told";
    }
    if (isDone || outcome.isInPlace) {
        EXPECT_TRUE(isSame(now, linesAfter_)) << "done, and not on disk; " << outcome.error;
    }
    if (!isDone && !outcome.isInPlace && !outcome.isOutOfMemory && !outcome.error.empty() && operation_.isExact) {
        EXPECT_TRUE(now == linesMidway_ || isSame(now, linesBefore_)) << "on disk in spite of: " << outcome.error;
    }

    // The next change is kept, and nothing that was there is lost by it.
    if (session->isOpen() && operation_.shelf != Shelf::file) {
        const auto memory = session->memory();
        // Where the file lists all, it does so in memory's order.
        const auto ordered = [&](const Lines& lines) { return operation_.unlisted ? sorted(lines) : lines; };
        if (isDone || outcome.isInPlace) {
            EXPECT_TRUE(isSame(ordered(memory), ordered(withAudio(memoryAfter_, tree))));
        }
        if (!operation_.isOpening) {
            const auto old = withAudio(linesBefore_, before_);
            EXPECT_TRUE(memory == old || memory == linesMidway_ || isSame(ordered(memory), ordered(memoryAfter_)));
        }
        if (!isDone && !outcome.error.empty() && operation_.keepsAudio && !operation_.isOpening &&
            !outcome.isShortForGood) {
            EXPECT_TRUE(isSame(memory, now)) << "memory and disk differ after: " << outcome.error;
        }
        if (operation_.keepsAudio && !operation_.isOpening) {
            EXPECT_TRUE(isSame(withAudio(memory, tree), memory)) << "a piece is kept whose audio is gone";
        }
        session->change();
        const auto later = readTree(home_);
        const auto extra = extraLine(operation_.shelf, home_);
        EXPECT_TRUE(isSame(lines(later), session->memory()));
        EXPECT_TRUE(operation_.isOpening || isSame(without(lines(later), extra), memory));
        EXPECT_TRUE(holds(lines(later), extra));
        Lines wanted;
        for (const auto& line : memory == linesMidway_ ? linesMidway_ : linesBefore_) {
            if (holds(linesAfter_, line) || holds(memory, line)) wanted.push_back(line);
        }
        checkNothingLost(later, wanted);
        // What could not be read at first is read by then, and not only kept in a copy.
        for (const auto& line : wanted) EXPECT_TRUE(line == unreadableLine || holds(lines(later), line)) << line;
    }
    session.reset();
    checkNothingIsHeld();
    checkNextStart(readTree(home_));
    checkNothingIsHeld();
}

void Stage::checkNothingIsHeld() const {
    for (const auto& [path, content] : readTree(home_)) {
        EXPECT_FALSE(isLock(path) && FolderLock::isHeld(home_ / path)) << path << " is held after the end";
    }
    EXPECT_EQ(openDescriptors(), descriptors_) << "a file was left open";
}

void Stage::checkIsSafe(const std::vector<RecordedCall>& calls) const {
    Disk disk(home_, before_, operation_.isUnsynced);
    for (const auto& call : calls) disk.apply(call);
    const auto tree = disk.safeTree();
    EXPECT_TRUE(isSame(lines(tree), linesAfter_)) << "done, and a power cut would undo it";
    if (operation_.shelf != Shelf::loops) return;
    for (const auto& line : linesAfter_) {
        const auto& path = audioOf(line, home_);
        const auto audio = tree.find(path);
        EXPECT_TRUE(audio != tree.end() && audio->second == after_.at(path)) << path << " is listed, and not safe";
    }
}

void Stage::checkListedIsSafe(const std::vector<RecordedCall>& calls) const {
    Disk disk(home_, before_, operation_.isUnsynced);
    for (const auto& call : calls) disk.apply(call);
    const auto safe = disk.safeTree();
    const auto now = readTree(home_);
    EXPECT_TRUE(isSame(lines(safe), lines(now))) << "saved, and a power cut would undo it";
    if (operation_.shelf != Shelf::loops) return;
    for (const auto& line : lines(now)) {
        if (line == unreadableLine) continue;
        const auto& path = audioOf(line, home_);
        const auto audio = safe.find(path);
        const auto should = now.find(path);
        EXPECT_TRUE(should != now.end()) << path << " is listed, and gone";
        EXPECT_TRUE(audio != safe.end() && should != now.end() && audio->second == should->second)
            << path << " is listed, and not safe";
    }
}

void Stage::checkAfterStop(bool wasDone, bool lostPower) const {
    const auto tree = readTree(home_);
    checkFiles(tree, true, lostPower);
    if (!lostPower) checkPermissions();  // the disk that lost it knows only names and bytes
    if (wasDone) {
        EXPECT_TRUE(isSame(lines(tree), linesAfter_)) << "it was done, and is not on disk";
    }
    checkNextStart(tree);
}

void Stage::checkNextStart(const Tree& tree) const {
    if (operation_.shelf == Shelf::file) return;
    // The next start is tomorrow's: what nobody has written to for so long is a dead process's.
    for (const auto& [path, content] : tree) {
        if (!isRest(path)) continue;
        std::filesystem::last_write_time(home_ / path,
                                         std::filesystem::file_time_type::clock::now() - std::chrono::hours(24));
    }
    const auto now = lines(tree);
    const auto extra = extraLine(operation_.shelf, home_);
    auto expected = operation_.isDoneByAnyStart ? linesAfter_ : withAudio(now, tree);
    if (holds(now, extra) && !holds(expected, extra)) expected.push_back(extra);
    {
        const auto session = reopen(operation_.shelf, home_);
        EXPECT_TRUE(isSame(sorted(session->memory()), sorted(expected)));
        const auto cleaned = readTree(home_);
        for (const auto& [path, content] : tree) {
            if (isRest(path) || mayGo(path) || path == mainFile(operation_.shelf)) continue;
            const auto left = cleaned.find(path);
            const bool isRight = left != cleaned.end() && (isLock(path) || left->second == content);
            EXPECT_TRUE(isRight) << path << " was cleaned, or changed";
        }
        session->change();
    }
    const auto session = reopen(operation_.shelf, home_);
    EXPECT_TRUE(holds(session->memory(), extra));
    const auto last = readTree(home_);
    checkNothingLost(last, expected);
    checkNothingLost(last, unlisted());
    for (const auto& [path, content] : last) {
        const bool shouldBeGone = isRest(path) || (operation_.isDoneByAnyStart && operation_.mayGo.contains(path));
        EXPECT_FALSE(shouldBeGone) << path << " was not cleaned";
    }
}

}  // namespace quillmere::test
