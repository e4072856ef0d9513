#include "QuillmereKit/Moods/CustomMoodStore.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
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

/// Keeps a copy of an unreadable file that is about to be replaced. Only its being gone is no failure.
void keepAside(const std::filesystem::path& file, Date now) {
    try {
        keepCopyAside(file, "unreadable", now);
    } catch (const FileError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) throw;
    }
}

}  // namespace

CustomMoodStore& CustomMoodStore::shared() {
    static CustomMoodStore store(sharedFile());
    return store;
}

CustomMoodStore::CustomMoodStore(std::optional<std::filesystem::path> file, std::function<Date()> now)
    : file_(file ? wholePath(*file) : defaultFile()), now_(std::move(now)), place_(file_) {
    load();
}

void CustomMoodStore::load() {
    if (file_.empty()) return;
    const auto facts = factsOf(file_);
    const bool isLink = facts && facts->kind == FileFacts::Kind::link;
    std::error_code isBroken;
    auto place = isLink ? std::filesystem::canonical(file_, isBroken) : file_;
    if (isBroken) return;
    removeOldTemporaries(place.parent_path());
    try {
        known_ = factsOf(place);
        if (const auto text = readFileIfPresent(place, mostBytes)) specs_ = decodeFile(*text);
        place_ = std::move(place);
        return;
    } catch (const Error&) {
        // Nobody could act on it here; the file is kept instead.
    }
    if (isLink) return;  // the user put it there; as long as it stands, no update replaces it
    try {
        moveAside(file_, "unreadable", now_());
    } catch (const FileError&) {
        isUnreadableInPlace_ = true;
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

// Only where another process wrote the file since: its list is the one to change.
void CustomMoodStore::takeInWhatOthersWrote() {
    const auto present = factsOf(place_);
    if (!present || present->kind != FileFacts::Kind::regular || isUnreadableInPlace_) return;
    if (known_ && known_->inode == present->inode && known_->modified == present->modified) return;
    try {
        if (const auto text = readFileIfPresent(place_, mostBytes)) specs_ = decodeFile(*text);
    } catch (const Error&) {
        isUnreadableInPlace_ = true;
    }
}

void CustomMoodStore::update(const std::function<void(std::vector<MoodSpec>&)>& change) {
    const std::lock_guard lock(mutex_);
    if (file_.empty()) {
        throw FileError("find the user's data folder", file_, make_error_code(std::errc::no_such_file_or_directory));
    }
    takeInWhatOthersWrote();
    auto next = specs_;
    change(next);

    const std::string text = encodeFile(next);
    if (text.size() > mostBytes) throw FileError("write", place_, make_error_code(std::errc::file_too_large));
    try {
        createFolders(place_.parent_path());
        if (isUnreadableInPlace_) keepAside(place_, now_());
    } catch (const FileError& error) {
        throw error.notInPlace();  // whatever is in place here, the list is not
    }
    isUnreadableInPlace_ = false;
    try {
        writeDurably(place_, text);
    } catch (const FileError& error) {
        known_.reset();
        if (error.isInPlace()) specs_ = std::move(next);  // what the file now holds
        throw;
    }
    known_ = factsOf(place_);
    specs_ = std::move(next);
}

}  // namespace quillmere
