#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/Recipes.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {
namespace {

struct Options {
    std::string fingerprint;
    std::string file;
    ExportTarget target{};
    std::optional<std::string> name;
    bool isMeant = false;
};

void noteSaveError(Host& host) {
    if (const auto error = RecipeVault::shared().lastSaveError()) {
        host.fail(ExitCode::notSaved, "The vault could not be saved: " + *error);
    }
}

void printLine(const LoopRecipe& recipe) {
    std::printf("%s  %-16s %s\n", safeForTerminal(recipe.fingerprint).c_str(),
                safeForTerminal(recipe.identity.moodID).c_str(), safeForTerminal(recipe.name).c_str());
}

void list(const Host& host) {
    const auto recipes = ownVault().saved();
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.array(recipes);
        return printJSON(writer);
    }
    for (const LoopRecipe& recipe : recipes) printLine(recipe);
}

void printOutcome(const Host& host, const LoopRecipe& recipe, const char* key, bool value, const std::string& text) {
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("fingerprint", recipe.fingerprint);
        writer.member("name", recipe.name);
        writer.member(key, value);
        writer.endObject();
        printJSON(writer);
    } else {
        std::printf("%s %s  %s\n", text.c_str(), safeForTerminal(recipe.fingerprint).c_str(),
                    safeForTerminal(recipe.name).c_str());
    }
}

void add(Host& host, const Options& options) {
    const auto lock = Host::lockData();  // before the piece is looked up: nobody prunes it meanwhile
    const LoopRecipe recipe = recipeOf(*host.readingStore(), options.fingerprint, options.name);
    const bool isNew = ownVault().save(recipe);
    printOutcome(host, recipe, "isNew", isNew, isNew ? "Saved" : "Already saved");
    noteSaveError(host);
}

void remove(Host& host, const Options& options) {
    const auto lock = Host::lockData();
    auto& vault = readableVault();
    std::vector<std::string> known;
    for (const LoopRecipe& recipe : vault.saved()) {
        if (recipe.fingerprint != options.fingerprint) {
            known.push_back(recipe.fingerprint);
            continue;
        }
        if (options.isMeant) vault.remove(recipe.fingerprint);
        printOutcome(host, recipe, "isRemoved", options.isMeant,
                     options.isMeant ? "Removed" : "Would remove (add --yes to do it)");
        return noteSaveError(host);
    }
    throw UsageError("fingerprint", "there is no recipe \"" + safeForTerminal(options.fingerprint) +
                                        "\" in the vault." +
                                        didYouMean(options.fingerprint, known, " 'quillmere vault list' lists them."));
}

void exportAll(Host& host, const Options& options) {
    const auto& vault = readableVault();
    exportText(host, options.target, vault.exported(), std::to_string(vault.count()) + " recipes",
               [&](JSONWriter& writer) { writer.member("count", static_cast<std::int64_t>(vault.count())); });
}

}  // namespace

void addVaultVerb(Verb program, Host& host) {
    auto options = std::make_shared<Options>();
    Verb verb = program.addVerb("vault", "List, save, remove and share the recipes in your vault");
    verb.footer("Example: quillmere vault list");
    verb.requireVerbs(0, 1);
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([verb, &host] {
        if (verb.isVerbGiven()) return;
        host.prepare();
        list(host);
    });
    const auto addPart = [&](const char* name, const char* what, const char* example) {
        Verb part = verb.addVerb(name, what);
        part.footer(std::string("Example: quillmere vault ") + example);
        addLibraryOptions(part, host);
        addJSONOption(part, host);
        return part;
    };
    const auto addFingerprint = [&](Verb part, const char* what) {
        part.addOption("fingerprint", options->fingerprint, what).typeName("FINGERPRINT").required();
    };

    Verb listing = addPart("list", "List the recipes, oldest first", "list --json");
    listing.callback([&host] {
        host.prepare();
        list(host);
    });

    Verb adding = addPart("add", "Save the recipe of a piece of the library", "add 0123456789abcdef");
    addFingerprint(adding, "The piece's fingerprint, or the beginning of it");
    adding.addOption("--name", options->name, "The recipe's name (default: the mood's)").typeName("TEXT");
    adding.callback([options, &host] {
        host.prepare();
        add(host, *options);
    });

    Verb removing = addPart("remove", "Remove a recipe", "remove 0123456789abcdef --yes");
    addFingerprint(removing, "The recipe");
    removing.addFlag("--yes", options->isMeant, "Really do it; without it, only say what would be removed");
    removing.callback([options, &host] {
        host.prepare();
        remove(host, *options);
    });

    Verb exporting = addPart("export", "Write all recipes to one file to share", "export --output recipes.json");
    addExportOptions(exporting, options->target, "The file to write; without it, the recipes are printed");
    exporting.callback([options, &host] {
        host.prepare();
        exportAll(host, *options);
    });

    Verb importing = addPart("import", "Save the recipes of a file", "import recipes.json");
    importing.addOption("file", options->file, "A file of one recipe or several").typeName("FILE").required();
    importing.callback([options, &host] {
        host.prepare();
        importRecipes(host, options->file);
    });
}

}  // namespace quillmere::app
