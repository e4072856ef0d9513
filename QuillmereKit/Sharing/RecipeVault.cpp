#include "QuillmereKit/Sharing/RecipeVault.hpp"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
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

RecipeVault::RecipeVault(const std::optional<std::filesystem::path>& directory)
    : file_(directory.value_or(defaultDirectory()) / "saved.json") {
    createFolders(file_.parent_path());
    load();
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
    for (LoopRecipe& recipe : partition.usable) {
        auto& list = append(recipe) ? result.added : result.duplicates;
        list.push_back(std::move(recipe));
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

void RecipeVault::load() {
    try {
        const auto bytes = readFileIfPresent(file_, recipeFileLimit);
        if (!bytes) return;
        auto bundle = RecipeBundle::decode(*bytes);
        for (LoopRecipe& recipe : bundle.recipes) {
            const bool isHeld =
                std::ranges::find(recipes_, recipe.fingerprint, &LoopRecipe::fingerprint) != recipes_.end();
            if (!isHeld) recipes_.push_back(std::move(recipe));
        }
        // What a file held twice is dropped here; the file as found is kept all the same.
        isUnreadable_ = recipes_.size() != bundle.recipes.size();
    } catch (const Error&) {
        recipes_.clear();
        isUnreadable_ = true;
    }
}

// A failure is kept, not thrown: the list in memory stands, and the next change writes it again.
void RecipeVault::persist() {
    std::optional<std::string> failure;
    {
        const std::lock_guard writing(writing_);
        try {
            failure = write();
        } catch (const Error& error) {
            failure = error.what();
        }
    }
    const std::lock_guard lock(mutex_);
    lastSaveError_ = std::move(failure);
}

// Writes what can be written; returns what was left out, if anything was.
std::optional<std::string> RecipeVault::write() {
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
    if (isUnreadable_) {
        if (fileExists(file_)) keepCopyAside(file_, "unreadable", std::chrono::system_clock::now());
        isUnreadable_ = false;
    }
    writeDurably(file_, bytes);
    return leftOut;
}

}  // namespace quillmere
