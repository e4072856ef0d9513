#include "QuillmereKit/Moods/CustomMoodStore.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere {
namespace {

std::filesystem::path defaultFile() {
    const auto folder = UserFolders::applicationData();
    return folder ? *folder / "Moods.json" : std::filesystem::path();
}

/// The file that a relative path names now, whatever the working folder will be.
std::filesystem::path wholePath(const std::filesystem::path& file) {
    std::error_code error;
    auto whole = std::filesystem::absolute(file, error);
    return error ? file : whole;
}

std::filesystem::path sharedFile() {
    if (!UserFolders::isAutomatedHarness()) return defaultFile();
    return UserFolders::temporary() / ("quillmere-moods-" + std::to_string(::getpid()) + ".json");
}

/// {"version": 1, "moods": [mood specification]}
std::string encodeFile(const std::vector<MoodSpec>& specs) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("version", 1);
    writer.member("moods", specs);
    writer.endObject();
    return writer.take();
}

std::vector<MoodSpec> decodeFile(std::string_view text) {
    const auto document = JSONDocument::parse(text);
    (void)document.root().member<std::int64_t>("version");  // must be there, whatever it is
    return document.root().member<std::vector<MoodSpec>>("moods");
}

/// `keptAs`: the name that a damaged file has now; empty if it still has its own.
std::string cannotBeRead(const std::filesystem::path& file, const std::string& reason, const std::string& keptAs = {}) {
    const std::string kept = keptAs.empty() ? "" : " (kept as \"" + keptAs + "\")";
    return "The moods \"" + file.string() + "\"" + kept + " cannot be read: " + reason;
}

/// The moods of a file; nothing where it is gone, or holds no list of moods: then `damage` says why, and so it will
/// stay. Throws `FileError` where it cannot be read now.
std::optional<std::vector<MoodSpec>> readMoods(const std::filesystem::path& file, std::optional<std::string>& damage) {
    try {
        const auto text = readFileIfPresent(file, CustomMoodStore::mostBytes);
        if (text) return decodeFile(*text);
    } catch (const FileError& error) {
        if (!replacedFile::isForGood(error)) throw;
        damage = error.what();
    } catch (const Error& error) {
        damage = error.what();
    }
    return std::nullopt;
}

}  // namespace

CustomMoodStore& CustomMoodStore::shared() {
    static CustomMoodStore store(sharedFile());
    return store;
}

CustomMoodStore::CustomMoodStore(std::optional<std::filesystem::path> file, std::function<Date()> now)
    : file_(file ? wholePath(*file) : defaultFile()), now_(std::move(now)) {
    load();
}

void CustomMoodStore::load() {
    if (file_.empty()) return;
    try {
        find();
    } catch (const FileError& error) {
        loadProblem_ = cannotBeRead(file_, error.what());
        return;  // the disk could not answer; the first change asks again
    }
    removeOldTemporaries(place_.value_or(file_).parent_path());
}

// Finds out where the file is, and reads it.
void CustomMoodStore::find() {
    const auto place = replacedFile::behindLink(file_);
    const bool isLink = place != file_;
    const auto facts = place ? replacedFile::lookAt(*place) : std::nullopt;
    const bool isFile = facts && facts->kind == FileFacts::Kind::regular;
    std::optional<std::string> damage;
    auto specs = isFile ? readMoods(*place, damage) : std::nullopt;
    const auto keptAs = damage && !isLink ? moveDamagedAside(*facts) : "";
    const bool isOther = !specs && !damage && (isLink || (facts && !isFile));
    if (isOther) damage = FileError("read", file_, FileFault::fileNotRegular).what();
    // A link that names no mood file is the user's: no update replaces it, and each asks again what it names.
    if (!isLink || specs) place_ = place;
    loadProblem_ = damage ? std::optional(cannotBeRead(file_, *damage, keptAs)) : std::nullopt;
    if (!keptAs.empty()) movedAside_ = loadProblem_;
    if (!specs) return;
    known_ = facts;
    specs_ = *std::move(specs);
}

// Returns its new name. Where it cannot be moved, a copy is kept before the first update replaces it.
std::string CustomMoodStore::moveDamagedAside(const FileFacts& facts) const {
    try {
        const auto lock = replacedFile::lockFor(file_);
        // Another process may have written a new one by now.
        if (replacedFile::lookAt(file_) != facts) return "";
        const auto move = [](const auto& from, const auto& to) {
            try {
                moveFile(from, to);
            } catch (const FileError& error) {
                if (!error.isInPlace()) throw;  // else it is moved, though a power cut may still undo that
            }
        };
        return moveAside(file_, "unreadable", now_(), move).filename();
    } catch (const Error&) {
        return "";
    }
}

std::optional<std::string> CustomMoodStore::loadProblem() const {
    const std::lock_guard lock(mutex_);
    return loadProblem_;
}

void CustomMoodStore::refresh() {
    const std::lock_guard guard(mutex_);
    if (file_.empty()) return;
    try {
        if (!place_) return find();
        const auto present = replacedFile::lookAt(*place_);
        if (present && present == known_) return loadProblem_.reset();  // the list is what the file holds
        std::optional<std::string> damage;
        if (auto theirs = present ? readMoods(*place_, damage) : std::nullopt) {
            hold(*std::move(theirs));
            known_ = present;
        } else {
            loadProblem_ = damage ? std::optional(cannotBeRead(file_, *damage)) : movedAside_;
        }
    } catch (const FileError& error) {
        loadProblem_ = cannotBeRead(file_, error.what());
    }
}

// Whether another process may have written the file that is there.
bool CustomMoodStore::isNews(const std::optional<FileFacts>& present) const {
    return present && present->kind == FileFacts::Kind::regular && present != known_;
}

std::vector<MoodSpec> CustomMoodStore::all() const {
    const std::lock_guard lock(mutex_);
    return specs_;
}

std::optional<MoodSpec> CustomMoodStore::spec(std::string_view id) const {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(specs_, id, &MoodSpec::id);
    if (found == specs_.end()) return std::nullopt;
    return *found;
}

void CustomMoodStore::save(MoodSpec spec) {
    update([&](std::vector<MoodSpec>& specs) {
        const auto same = std::ranges::find(specs, spec.id, &MoodSpec::id);
        if (same != specs.end()) {
            *same = std::move(spec);
        } else {
            specs.insert(specs.begin(), std::move(spec));
        }
    });
}

void CustomMoodStore::remove(std::string_view id) {
    update([&](std::vector<MoodSpec>& specs) {
        std::erase_if(specs, [&](const MoodSpec& spec) { return spec.id == id; });
    });
}

void CustomMoodStore::update(const std::function<void(std::vector<MoodSpec>&)>& change) {
    const std::lock_guard guard(mutex_);
    if (file_.empty()) {
        throw FileError("find the user's data folder", file_, make_error_code(std::errc::no_such_file_or_directory));
    }
    std::shared_ptr<FolderLock> lock;
    try {
        if (!place_) find();
        if (!place_) throw FileError("write", file_, FileFault::fileNotRegular);
        createFolders(place_->parent_path());
        lock = replacedFile::lockFor(*place_);
    } catch (const FileError& error) {
        throw error.notInPlace();  // whatever is in place here, the list is not
    }

    // Where another process wrote the file since, its list is the one to change.
    auto next = specs_;
    std::optional<std::string> damage;
    if (isNews(replacedFile::lookAt(*place_))) {
        if (auto theirs = readMoods(*place_, damage)) next = *std::move(theirs);
    }
    change(next);

    const std::string text = encodeFile(next);
    if (text.size() > mostBytes) throw FileError("write", *place_, make_error_code(std::errc::file_too_large));
    try {
        if (damage) replacedFile::keep(*place_, "unreadable", now_());
    } catch (const FileError& error) {
        throw error.notInPlace();
    }
    try {
        writeDurably(*place_, text);
    } catch (const FileError& error) {
        known_.reset();
        if (error.isInPlace()) hold(std::move(next));  // what the file now holds
        throw;
    }
    known_ = factsOf(*place_);
    hold(std::move(next));
}

void CustomMoodStore::hold(std::vector<MoodSpec> specs) noexcept {
    specs_ = std::move(specs);
    loadProblem_.reset();
    movedAside_.reset();
}

}  // namespace quillmere
