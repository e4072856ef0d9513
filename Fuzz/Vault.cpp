#include <algorithm>
#include <set>

#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"

// The vault's file, and the same bytes as a bundle to import. Whatever they are, the vault opens and takes a change; no
// recipe is lost, and what could not be read is kept beside the new file.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

bool isKept(const fs::path& folder, std::string_view bytes) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        const bool isCopy = entry.path().filename().native().starts_with("saved.unreadable-");
        if (isCopy && fuzz::read(entry.path()) == bytes) return true;
    }
    return false;
}

LoopRecipe sample() {
    return LoopRecipe::make("Sample", {.moodID = "deepcode",
                                       .blend = BlendStep(2),
                                       .calmPrompt = "calm",
                                       .energeticPrompt = "energetic",
                                       .seed = 77,
                                       .model = "sa3_medium_mlx_v2",
                                       .prompt = std::nullopt,
                                       .audio = std::nullopt,
                                       .recipe = 1});
}

void openAndChange(std::string_view text) {
    const auto folder = fuzz::sandbox() / "vault";
    fs::remove_all(folder);
    fuzz::write(folder / "saved.json", text);

    RecipeVault vault(folder);
    const auto recipes = vault.saved();
    std::set<std::string> fingerprints;
    for (const auto& recipe : recipes) fingerprints.insert(recipe.fingerprint);
    require(fingerprints.size() == recipes.size(), "each fingerprint is held once");

    const bool isNew = vault.save(sample());
    require(isNew == !fingerprints.contains(sample().fingerprint), "a recipe is new if its fingerprint is");
    if (!isNew) return;
    require(!vault.lastSaveError(), "a change is saved");
    require(RecipeVault(folder).saved() == vault.saved(), "the file holds what the vault holds");
    require(vault.count() == recipes.size() + 1, "no recipe is lost");
    require(!recipes.empty() || decodeJSON<RecipeBundle>(fuzz::read(vault.file())).recipes.size() == 1,
            "the file holds the new recipe");
    bool isBundle = true;
    try {
        isBundle = RecipeBundle::decode(text).recipes.size() == recipes.size();
    } catch (const Error&) {
        isBundle = false;
    }
    require(isBundle || isKept(folder, text), "what could not be read whole is kept");
}

void import(std::string_view text) {
    const auto folder = fuzz::sandbox() / "other vault";
    fs::remove_all(folder);
    RecipeVault vault(folder);
    vault.save(sample());
    try {
        const auto result = vault.importing(text);
        require(vault.count() == 1 + result.added.size(), "what was added is held");
        for (const auto& recipe : result.duplicates) {
            require(vault.contains(recipe.fingerprint), "a duplicate is held");
        }
        require(RecipeVault(folder).saved() == vault.saved(), "what was added is in the file");
        const auto again = vault.importing(text);
        require(again.added.empty() && again.rejected == result.rejected, "the second time nothing is new");
        static_cast<void>(vault.exported());
    } catch (const JSONError&) {
        require(vault.count() == 1, "what is no bundle adds nothing");
    } catch (const ImportError&) {
        require(vault.count() == 1, "what is no bundle adds nothing");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    openAndChange(fuzz::text(data, size));
    import(fuzz::text(data, size));
    return 0;
}
