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

/// The moods of a file; nothing where it is gone, or holds no list of moods, which `isDamaged` tells apart. Throws
/// `FileError` where it cannot be read now.
std::optional<std::vector<MoodSpec>> readMoods(const std::filesystem::path& file, bool& isDamaged) {
    try {
        const auto text = readFileIfPresent(file, CustomMoodStore::mostBytes);
        if (text) return decodeFile(*text);
        return std::nullopt;
    } catch (const FileError& error) {
        if (!replacedFile::isForGood(error)) throw;
    } catch (const Error&) {
        // Damaged, and so it will stay.
    }
    isDamaged = true;
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
    } catch (const FileError&) {
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
    bool isDamaged = false;
    auto specs = isFile ? readMoods(*place, isDamaged) : std::nullopt;
    if (isDamaged && !isLink) moveDamagedAside(*facts);
    // A link that names no mood file is the user's: no update replaces it, and each asks again what it names.
    if (!isLink || specs) place_ = place;
    if (!specs) return;
    known_ = facts;
    specs_ = *std::move(specs);
}

// Where it cannot be moved, a copy is kept before the first update replaces it.
void CustomMoodStore::moveDamagedAside(const FileFacts& facts) const {
    try {
        const auto lock = replacedFile::lockFor(file_);
        // Another process may have written a new one by now.
        if (replacedFile::lookAt(file_) == facts) moveAside(file_, "unreadable", now_());
    } catch (const Error&) {
        return;
    }
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
    bool isDamaged = false;
    const auto present = replacedFile::lookAt(*place_);
    if (present && present->kind == FileFacts::Kind::regular && present != known_) {
        if (auto theirs = readMoods(*place_, isDamaged)) next = *std::move(theirs);
    }
    change(next);

    const std::string text = encodeFile(next);
    if (text.size() > mostBytes) throw FileError("write", *place_, make_error_code(std::errc::file_too_large));
    try {
        if (isDamaged) replacedFile::keep(*place_, "unreadable", now_());
    } catch (const FileError& error) {
        throw error.notInPlace();
    }
    try {
        writeDurably(*place_, text);
    } catch (const FileError& error) {
        known_.reset();
        if (error.isInPlace()) specs_ = std::move(next);  // what the file now holds
        throw;
    }
    known_ = factsOf(*place_);
    specs_ = std::move(next);
}

}  // namespace quillmere
