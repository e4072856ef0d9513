#include "QuillmereKit/Sharing/RecipeVault.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
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

std::string cannotBeRead(const std::filesystem::path& file, const std::string& reason) {
    return "The vault \"" + file.string() + "\" cannot be read: " + reason;
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
    try {
        find();
    } catch (const FileError& error) {
        loadProblem_ = cannotBeRead(file_, error.what());
        return;  // the disk could not answer; the first change asks again
    }
    removeOldTemporaries(place_.value_or(file_).parent_path());
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

std::optional<std::string> RecipeVault::loadProblem() const {
    const std::lock_guard lock(mutex_);
    return loadProblem_;
}

void RecipeVault::refresh() {
    const std::lock_guard writing(writing_);
    try {
        if (place_) {
            takeInOthers();
        } else {
            find();
        }
    } catch (const FileError& error) {
        known_.reset();  // so that it is read the next time
        const std::lock_guard lock(mutex_);
        loadProblem_ = cannotBeRead(file_, error.what());
    }
}

std::optional<std::string> RecipeVault::lastSaveError() const {
    const std::lock_guard lock(mutex_);
    return lastSaveError_;
}

// Throws `FileError` where the file cannot be read now; one that is missing or damaged holds no recipes.
RecipeVault::Contents RecipeVault::read(const std::filesystem::path& place) {
    Contents contents;
    contents.facts = replacedFile::lookAt(place);
    if (!contents.facts) return contents;
    try {
        const auto bytes = readFileIfPresent(place, mostBytes);
        if (!bytes) return {};
        auto bundle = RecipeBundle::decode(*bytes);
        for (LoopRecipe& recipe : bundle.recipes) {
            if (contents.fingerprints.insert(recipe.fingerprint).second) contents.recipes.push_back(std::move(recipe));
        }
        // What a file held twice is dropped here; the file as found is kept all the same.
        contents.isWhole = contents.recipes.size() == bundle.recipes.size();
        return contents;
    } catch (const FileError& error) {
        if (!replacedFile::isForGood(error)) throw;
        contents.damage = cannotBeRead(place, error.what());
    } catch (const Error& error) {
        contents.damage = cannotBeRead(place, error.what());
    }
    contents.isWhole = false;
    return contents;
}

// Finds out where the file is, and takes in what it holds.
void RecipeVault::find() {
    const auto place = replacedFile::behindLink(file_);
    auto contents = place ? read(*place) : Contents{};
    // A link that names no vault's file is the user's: no change replaces it, and each asks again what it names.
    const bool isVault = contents.facts && (contents.isWhole || !contents.recipes.empty());
    if (place != file_ && !isVault) {
        const FileError isNoVault("read", file_, FileFault::fileNotRegular);
        const std::lock_guard lock(mutex_);
        loadProblem_ = contents.damage ? std::move(contents.damage) : cannotBeRead(file_, isNoVault.what());
        return;
    }
    place_ = place;
    takeIn(std::move(contents));
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

// Takes in what the file holds: what others added since, and without what they removed.
void RecipeVault::takeIn(Contents theirs) {
    const std::lock_guard lock(mutex_);
    const bool isDamaged = !theirs.isWhole && theirs.recipes.empty();
    if (!isDamaged) {
        std::set<std::string_view> held;
        for (const LoopRecipe& recipe : recipes_) held.insert(recipe.fingerprint);
        std::erase_if(theirs.recipes, [&](const LoopRecipe& recipe) {  // removed here since
            return knownFingerprints_.contains(recipe.fingerprint) && !held.contains(recipe.fingerprint);
        });
        theirs.recipes.reserve(theirs.recipes.size() + recipes_.size());
    }
    // From here on nothing can throw: the list and what is known of the file change together, or not at all.
    if (!isDamaged) {
        for (LoopRecipe& recipe : recipes_) {  // added here since
            const bool isNew =
                !knownFingerprints_.contains(recipe.fingerprint) && !theirs.fingerprints.contains(recipe.fingerprint);
            if (isNew) theirs.recipes.push_back(std::move(recipe));
        }
        recipes_ = std::move(theirs.recipes);
    }
    known_ = theirs.facts;
    knownFingerprints_ = std::move(theirs.fingerprints);
    isUnreadable_ = !theirs.isWhole;
    loadProblem_ = std::move(theirs.damage);
}

// Takes in the file if another process wrote it since.
void RecipeVault::takeInOthers() {
    const auto present = replacedFile::lookAt(*place_);
    if (present && present == known_) return;
    auto theirs = read(*place_);
    if (theirs.facts) return takeIn(std::move(theirs));
    // One that is gone removes nothing, and is read again should it come back.
    known_.reset();
    const std::lock_guard lock(mutex_);
    loadProblem_.reset();
}

// Writes what can be written; returns what was left out, if anything was.
std::optional<std::string> RecipeVault::write() {
    if (!place_) find();
    if (!place_) throw FileError("write", file_, FileFault::fileNotRegular);
    createFolders(place_->parent_path());  // it may have been taken away since
    const auto lock = replacedFile::lockFor(*place_);
    takeInOthers();
    RecipeBundle bundle;
    std::optional<std::string> leftOut;
    for (auto recipes = saved(); LoopRecipe & recipe : recipes) {
        try {
            static_cast<void>(encodeJSON(recipe, JSONWriter::Form::compact));
            bundle.recipes.push_back(std::move(recipe));
        } catch (const EncodingError& error) {
            leftOut = "The recipe " + recipe.fingerprint + " cannot be written: " + error.what();
        }
    }
    const std::string bytes = encodeJSON(bundle, JSONWriter::Form::pretty);
    if (bytes.size() > mostBytes) {
        throw FileError("write", *place_, std::make_error_code(std::errc::file_too_large));
    }
    if (isUnreadable_) {
        replacedFile::keep(*place_, "unreadable", std::chrono::system_clock::now());
        isUnreadable_ = false;
    }
    std::set<std::string, std::less<>> fingerprints;
    for (const LoopRecipe& recipe : bundle.recipes) fingerprints.insert(recipe.fingerprint);
    const auto noteWritten = [&]() noexcept {
        known_ = factsOf(*place_);
        knownFingerprints_ = std::move(fingerprints);
        const std::lock_guard guard(mutex_);
        loadProblem_.reset();
    };
    try {
        writeDurably(*place_, bytes);
    } catch (const FileError& error) {
        if (error.isInPlace()) noteWritten();
        throw;
    }
    noteWritten();
    return leftOut;
}

}  // namespace quillmere
