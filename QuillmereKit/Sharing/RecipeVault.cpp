#include "QuillmereKit/Sharing/RecipeVault.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere {
namespace {

std::filesystem::path defaultDirectory() {
    const auto data = UserFolders::applicationData();
    return data ? *data : UserFolders::temporary() / "Quillmere";
}

std::filesystem::path sharedDirectory() {
    if (!UserFolders::isAutomatedHarness()) return defaultDirectory();
    return UserFolders::temporary() / ("quillmere-vault-" + std::to_string(getpid()));
}

// The right to replace the file, among all processes. Throws `LibraryInUse`, or `FileError` if the lock file cannot be
// made.
std::shared_ptr<FolderLock> lockFor(const std::filesystem::path& file) {
    const auto folder = file.parent_path();
    const auto lockFile = folder / ".saved.lock";
    createFolders(folder);  // it may have been taken away since
    // Who held it may have let go before it could be asked who that is.
    constexpr int attempts = 8;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (auto lock = FolderLock::tryAcquire(lockFile)) return lock;
        const auto facts = factsOf(lockFile);
        const bool isFile = facts && facts->kind == FileFacts::Kind::regular;
        if (isFile && FolderLock::isHeld(lockFile)) throw LibraryInUse(folder, FolderLock::holder(lockFile));
    }
    throw FileError("lock", lockFile, std::make_error_code(std::errc::permission_denied));
}

// Whether nothing stands at a path. False where that cannot be told.
bool isNothingAt(const std::filesystem::path& place) noexcept {
    std::error_code error;
    return std::filesystem::symlink_status(place, error).type() == std::filesystem::file_type::not_found;
}

// Keeps a copy of an unreadable file that is about to be replaced. Only its being gone is no failure.
void keepAside(const std::filesystem::path& file) {
    try {
        keepCopyAside(file, "unreadable", std::chrono::system_clock::now());
    } catch (const FileError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) throw;
    }
}

}  // namespace

std::string RecipeVault::ImportResult::summary() const {
    std::string text = std::to_string(added.size()) + " added";
    if (!duplicates.empty()) text += " · " + std::to_string(duplicates.size()) + " already saved";
    if (!rejected.empty()) text += " · " + std::to_string(rejected.size()) + " unusable";
    return text;
}

RecipeVault& RecipeVault::shared() {
    static RecipeVault vault(sharedDirectory());
    return vault;
}

RecipeVault::RecipeVault(const std::optional<std::filesystem::path>& directory) {
    precondition(!directory || !directory->empty(), "a vault's folder has a path");
    file_ = std::filesystem::absolute(directory ? *directory : defaultDirectory()) / "saved.json";
    createFolders(file_.parent_path());
    const auto facts = factsOf(file_);
    const bool isLink = facts && facts->kind == FileFacts::Kind::link;
    std::error_code isBroken;
    place_ = isLink ? std::filesystem::canonical(file_, isBroken) : file_;
    if (isBroken) place_ = file_;
    removeOldTemporaries(place_.parent_path());
    recipes_ = read();
    if (isLink && isUnreadable_ && recipes_.empty()) place_ = file_;  // what it names is not ours to replace
}

std::vector<LoopRecipe> RecipeVault::saved() const {
    const std::lock_guard lock(mutex_);
    return recipes_;
}

std::size_t RecipeVault::count() const {
    const std::lock_guard lock(mutex_);
    return recipes_.size();
}

bool RecipeVault::contains(std::string_view fingerprint) const {
    const std::lock_guard lock(mutex_);
    return std::ranges::find(recipes_, fingerprint, &LoopRecipe::fingerprint) != recipes_.end();
}

bool RecipeVault::save(LoopRecipe recipe) {
    if (!append(std::move(recipe))) return false;
    persist();
    return true;
}

// Whether the recipe was new.
bool RecipeVault::append(LoopRecipe recipe) {
    const std::lock_guard lock(mutex_);
    if (std::ranges::find(recipes_, recipe.fingerprint, &LoopRecipe::fingerprint) != recipes_.end()) return false;
    recipes_.push_back(std::move(recipe));
    return true;
}

bool RecipeVault::remove(std::string_view fingerprint) {
    {
        const std::lock_guard lock(mutex_);
        if (std::erase_if(recipes_, [&](const LoopRecipe& recipe) { return recipe.fingerprint == fingerprint; }) == 0) {
            return false;
        }
    }
    persist();
    return true;
}

std::string RecipeVault::exported() const { return RecipeBundle{.recipes = saved()}.encoded(); }

RecipeVault::ImportResult RecipeVault::importing(std::string_view bytes) {
    auto partition = RecipeBundle::decode(bytes).partition();
    ImportResult result;
    {
        const std::lock_guard lock(mutex_);
        auto next = recipes_;  // all of them or none, whatever fails
        std::set<std::string> held;
        for (const LoopRecipe& recipe : next) held.insert(recipe.fingerprint);
        for (LoopRecipe& recipe : partition.usable) {
            const bool isNew = held.insert(recipe.fingerprint).second;
            if (isNew) next.push_back(recipe);
            auto& list = isNew ? result.added : result.duplicates;
            list.push_back(std::move(recipe));
        }
        recipes_ = std::move(next);
    }
    // Written once: a bundle of thousands costs one write, and the file names all of them or none.
    if (!result.added.empty()) persist();
    result.rejected = std::move(partition.rejected);
    return result;
}

std::optional<std::string> RecipeVault::lastSaveError() const {
    const std::lock_guard lock(mutex_);
    return lastSaveError_;
}

// The recipes of the file, each fingerprint once; none if it is missing or unreadable.
std::vector<LoopRecipe> RecipeVault::read() {
    std::vector<LoopRecipe> recipes;
    known_ = factsOf(place_);
    knownFingerprints_.clear();
    isUnreadable_ = false;
    try {
        const auto bytes = readFileIfPresent(place_, mostBytes);
        if (!bytes) return {};
        auto bundle = RecipeBundle::decode(*bytes);
        for (LoopRecipe& recipe : bundle.recipes) {
            if (knownFingerprints_.insert(recipe.fingerprint).second) recipes.push_back(std::move(recipe));
        }
        // What a file held twice is dropped here; the file as found is kept all the same.
        isUnreadable_ = recipes.size() != bundle.recipes.size();
        return recipes;
    } catch (const FileError&) {
        known_.reset();  // the next change tries again
    } catch (const Error&) {
        // Damaged, and so it will stay.
    }
    knownFingerprints_.clear();
    isUnreadable_ = true;
    return {};
}

// A failure is kept, not thrown: the list in memory stands, and the next change writes it again.
void RecipeVault::persist() {
    const std::lock_guard writing(writing_);
    std::optional<std::string> failure;
    try {
        failure = write();
    } catch (const Error& error) {
        failure = error.what();
    }
    const std::lock_guard lock(mutex_);
    lastSaveError_ = std::move(failure);
}

// The list as it has to be written: where another process wrote the file since, with what that one added and without
// what it removed.
std::vector<LoopRecipe> RecipeVault::takeInWhatOthersWrote() {
    const auto present = factsOf(place_);
    if (!present && !isNothingAt(place_)) {
        throw FileError("look at", place_, std::make_error_code(std::errc::io_error));
    }
    if (!present || present == known_) return saved();

    const auto before = knownFingerprints_;
    auto theirs = read();
    const std::lock_guard lock(mutex_);
    if (theirs.empty() && isUnreadable_) return recipes_;
    std::set<std::string_view> held;
    for (const LoopRecipe& recipe : recipes_) held.insert(recipe.fingerprint);
    std::erase_if(theirs, [&](const LoopRecipe& recipe) {  // removed here since
        return before.contains(recipe.fingerprint) && !held.contains(recipe.fingerprint);
    });
    theirs.reserve(theirs.size() + recipes_.size());  // from here on nothing can throw: both lists are taken apart
    for (LoopRecipe& recipe : recipes_) {             // added here since
        const bool isNew = !before.contains(recipe.fingerprint) && !knownFingerprints_.contains(recipe.fingerprint);
        if (isNew) theirs.push_back(std::move(recipe));
    }
    recipes_ = std::move(theirs);
    return recipes_;
}

// Writes what can be written; returns what was left out, if anything was.
std::optional<std::string> RecipeVault::write() {
    const auto lock = lockFor(place_);
    RecipeBundle bundle;
    std::optional<std::string> leftOut;
    for (auto recipes = takeInWhatOthersWrote(); LoopRecipe & recipe : recipes) {
        try {
            static_cast<void>(encodeJSON(recipe, JSONWriter::Form::compact));
            bundle.recipes.push_back(std::move(recipe));
        } catch (const EncodingError& error) {
            leftOut = "The recipe " + recipe.fingerprint + " cannot be written: " + error.what();
        }
    }
    const std::string bytes = encodeJSON(bundle, JSONWriter::Form::pretty);
    if (bytes.size() > mostBytes) {
        throw FileError("write", place_, std::make_error_code(std::errc::file_too_large));
    }
    if (isUnreadable_) {
        keepAside(place_);
        isUnreadable_ = false;
    }
    const auto noteWritten = [&] {
        known_ = factsOf(place_);
        knownFingerprints_.clear();
        for (const LoopRecipe& recipe : bundle.recipes) knownFingerprints_.insert(recipe.fingerprint);
    };
    try {
        writeDurably(place_, bytes);
    } catch (const FileError& error) {
        if (error.isInPlace()) noteWritten();
        throw;
    }
    noteWritten();
    return leftOut;
}

}  // namespace quillmere
