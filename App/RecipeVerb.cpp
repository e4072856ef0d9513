#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Engines.hpp"
#include "App/Host.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Recipes.hpp"
#include "App/Recreation.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"

namespace quillmere::app {
namespace {

struct Options {
    std::string fingerprint;
    std::string file;
    ExportTarget target{};
    std::optional<std::string> name;
    std::string engine;
    std::string digest;
    bool isWithMood = false;
};

void encodeRejected(JSONWriter& writer, const std::vector<RecipeBundle::Rejected>& rejected) {
    writer.beginArray();
    for (const auto& [recipe, error] : rejected) {
        writer.beginObject();
        writer.member("fingerprint", recipe.fingerprint);
        writer.member("name", recipe.name);
        writer.key("error");
        encodeFailure(writer, error);
        writer.endObject();
    }
    writer.endArray();
}

void exportRecipe(Host& host, const Options& options) {
    const LoopRecipe recipe = recipeOf(*host.readingStore(), options.fingerprint, options.name).forSharing();
    recipe.validate();  // what every reader would refuse is not written
    exportText(host, options.target, recipe.encoded(), recipe.fingerprint, [&](JSONWriter& writer) {
        writer.member("fingerprint", recipe.fingerprint);
        writer.member("name", recipe.name);
    });
}

void printLine(const char* name, const std::optional<std::string>& value) {
    if (value) std::printf("  %-12s %s\n", name, safeForTerminal(*value).c_str());
}

void showAsText(const LoopRecipe& recipe) {
    const auto& identity = recipe.identity;
    std::printf("%s\n", safeForTerminal(recipe.name).c_str());
    printLine("fingerprint", recipe.fingerprint);
    printLine("mood", recipe.moodSpec ? identity.moodID + "  " + recipe.moodSpec->name : identity.moodID);
    printLine("blend", std::to_string(identity.blend.index()) + "  " + std::string(identity.blend.label()));
    printLine("seed", std::to_string(identity.seed));
    printLine("model", identity.model);
    if (recipe.seconds) {
        char text[64];
        std::snprintf(text, sizeof text, "%.6g s", *recipe.seconds);
        printLine("length", text);
    }
    printLine("engine", recipe.engineBuild);
    if (recipe.origin) printLine("made on", recipe.origin->chip);
    printLine("audio", recipe.audioSHA256);
    printLine("calm", identity.calmPrompt);
    printLine("energetic", identity.energeticPrompt);
    printLine("prompt", identity.prompt);
}

void show(Host& host, const std::string& file) {
    const RecipeFile read = readRecipes(file);
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("recipes", read.recipes.usable);
        writer.key("rejected");
        encodeRejected(writer, read.recipes.rejected);
        writer.endObject();
        printJSON(writer);
    } else {
        for (const LoopRecipe& recipe : read.recipes.usable) showAsText(recipe);
    }
    warnOfRejected(read.recipes.rejected);
    if (!read.recipes.rejected.empty()) host.exitCode = ExitCode::failure;
}

// Whether this machine can recreate each of the recipes.
void check(Host& host, const Options& options) {
    const RecipeFile read = readRecipes(options.file);
    const auto engines = enginesFor(options.engine, host.readingStore());
    warnOfRejected(read.recipes.rejected);
    if (!read.recipes.rejected.empty()) host.exitCode = ExitCode::failure;
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginArray();
    for (const LoopRecipe& recipe : read.recipes.usable) {
        const auto localBuild = engines->engineBuild(recipe.identity);
        const auto refusal = whyNotHere(recipe, localBuild);
        writer.beginObject();
        writer.member("fingerprint", recipe.fingerprint);
        writer.member("name", recipe.name);
        writer.member("canRecreate", !refusal);
        writer.member("engineBuild", recipe.engineBuild);
        writer.member("localBuild", localBuild);
        if (refusal) {
            writer.key("error");
            encodeFailure(writer, *refusal);
        }
        writer.endObject();
        const std::string title = read.isBundle ? "\"" + recipe.name + "\" (" + recipe.fingerprint + "): " : "";
        if (refusal) {
            host.fail(ExitCode::failure, title + std::string(refusal->message()));
        } else if (!host.json) {
            std::printf("%sThis machine can recreate it.\n", safeForTerminal(title).c_str());
        }
    }
    for (const auto& [recipe, error] : read.recipes.rejected) {
        writer.beginObject();
        writer.member("fingerprint", recipe.fingerprint);
        writer.member("name", recipe.name);
        writer.member("canRecreate", false);
        writer.key("error");
        encodeFailure(writer, error);
        writer.endObject();
    }
    writer.endArray();
    if (host.json) printJSON(writer);
}

// The recipe that the user names: a file of one, or a fingerprint in the vault.
LoopRecipe namedRecipe(const std::string& name) {
    const bool isFingerprint = name.size() == 16 && name.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (!isFingerprint || fileExists(name)) {
        auto read = readRecipes(name);
        if (read.recipes.usable.size() + read.recipes.rejected.size() != 1) {
            throw Error("The file holds " + std::to_string(read.recipes.usable.size() + read.recipes.rejected.size()) +
                        " recipes. Import it, then recreate one by its fingerprint.");
        }
        if (!read.recipes.rejected.empty()) throw read.recipes.rejected.front().error;
        return std::move(read.recipes.usable.front());
    }
    std::vector<std::string> known;
    for (LoopRecipe& recipe : readableVault().saved()) {
        if (recipe.fingerprint == name) {
            recipe.validate();  // the file may have been edited by hand
            return std::move(recipe);
        }
        known.push_back(std::move(recipe.fingerprint));
    }
    throw UsageError("recipe", "there is no recipe \"" + name + "\" in the vault." +
                                   didYouMean(name, known, " 'quillmere vault list' lists them."));
}

// Keeps the recipe's mood among the user's own, so that its pieces are played. A mood of that id stays as it is.
void keepMood(Host& host, const LoopRecipe& recipe, bool isWanted) {
    if (!recipe.identity.moodID.starts_with(MoodSpec::idPrefix) || !recipe.moodSpec) return;
    const auto lock = isWanted ? Host::lockData() : nullptr;
    if (isWanted) requireReadable(recipe.moodSpec->id);
    auto& moods = ownMoods();
    if (moods.loadProblem()) return;  // whether there is one of that id is not known

    const auto held = moods.spec(recipe.moodSpec->id);  // the user's own specification
    if (held && held->rendersLike(*recipe.moodSpec)) return;
    if (held) {
        Host::warn("Your mood \"" + held->id + "\" is another one than the recipe's, so the piece will not be played.");
    } else if (!isWanted) {
        Host::warn("The mood \"" + recipe.moodSpec->name +
                   "\" is not among yours, so the piece will not be played. --with-mood adds it.");
    } else {
        host.change([&] { moods.save(*recipe.moodSpec); });
    }
}

void recreateRecipe(Host& host, const Options& options) {
    const LoopRecipe recipe = namedRecipe(options.file);
    const auto done = recreate(recipe, options.engine, options.digest, host);
    if (!done) return;
    report(*done, host);  // first: the piece is there, whatever becomes of its mood
    keepMood(host, recipe, options.isWithMood);
}

}  // namespace

void importRecipes(Host& host, const std::string& file) {
    const RecipeFile read = readRecipes(file);
    const auto lock = Host::lockData();
    auto& vault = ownVault();
    RecipeVault::ImportResult result;
    if (read.isBundle) {
        result = vault.importing(read.bytes);
    } else {
        const LoopRecipe& recipe = read.recipes.usable.front();
        (vault.save(recipe) ? result.added : result.duplicates).push_back(recipe);
    }
    if (host.json) {
        const auto fingerprints = [](const std::vector<LoopRecipe>& recipes) {
            std::vector<std::string> all;
            all.reserve(recipes.size());
            for (const auto& recipe : recipes) all.push_back(recipe.fingerprint);
            return all;
        };
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("summary", result.summary());
        writer.member("added", fingerprints(result.added));
        writer.member("duplicates", fingerprints(result.duplicates));
        writer.key("rejected");
        encodeRejected(writer, result.rejected);
        writer.endObject();
        printJSON(writer);
    } else {
        std::printf("%s\n", result.summary().c_str());
    }
    warnOfRejected(result.rejected);
    if (!result.rejected.empty()) host.exitCode = ExitCode::failure;
    if (const auto error = vault.lastSaveError()) {
        host.fail(ExitCode::notSaved, "The vault could not be saved: " + *error);
    }
}

void addRecipeVerb(Verb program, Host& host) {
    auto options = std::make_shared<Options>();
    Verb verb = program.addVerb("recipe", "Share pieces as small files from which others recreate them");
    verb.footer("Example: quillmere recipe show night-train.json");
    verb.requireVerbs(1, 1);

    const auto add = [&](const char* name, const char* what, const char* example) {
        Verb part = verb.addVerb(name, what);
        part.footer(std::string("Example: quillmere recipe ") + example);
        addLibraryOptions(part, host);
        addJSONOption(part, host);
        return part;
    };
    const auto addFile = [&](Verb part) {
        part.addOption("file", options->file, "A file of one recipe or several").typeName("FILE").required();
    };
    const auto addEngine = [&](Verb part) {
        part.addOption("--engine", options->engine, "The command of an engine (default: Tonebed)").typeName("CMD");
    };

    Verb exporting = add("export", "Write the recipe of a piece of the library",
                         "export 0123456789abcdef --output night-train.json");
    exporting.addOption("fingerprint", options->fingerprint, "The piece's fingerprint, or the beginning of it")
        .typeName("FINGERPRINT")
        .required();
    addExportOptions(exporting, options->target, "The file to write; without it, the recipe is printed");
    exporting.addOption("--name", options->name, "The recipe's name (default: the mood's)").typeName("TEXT");
    exporting.callback([options, &host] {
        host.prepare();
        exportRecipe(host, *options);
    });

    Verb importing = add("import", "Save the recipes of a file in your vault", "import night-train.json");
    addFile(importing);
    importing.callback([options, &host] {
        host.prepare();
        importRecipes(host, options->file);
    });

    Verb showing = add("show", "Show the recipes of a file", "show night-train.json");
    addFile(showing);
    showing.callback([options, &host] {
        host.prepare();
        show(host, options->file);
    });

    Verb checking =
        add("check", "Say whether this machine can recreate the recipes of a file", "check night-train.json");
    addFile(checking);
    addEngine(checking);
    checking.callback([options, &host] {
        host.prepare();
        check(host, *options);
    });

    Verb recreating =
        add("recreate", "Render a recipe's piece again, file it, and compare the audio", "recreate night-train.json");
    recreating.addOption("recipe", options->file, "A file of one recipe, or the fingerprint of a recipe in your vault")
        .typeName("FILE|FINGERPRINT")
        .required();
    addEngine(recreating);
    recreating
        .addOption("--digest", options->digest,
                   "The digest of the original's audio, as 'quillmere digest' prints it, to compare with")
        .typeName("HEX")
        .check([](const std::string& text) {
            const bool isDigest =
                text.size() == 64 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
            return isDigest ? std::string() : std::string("a digest is 64 hexadecimal digits");
        });
    recreating.addFlag("--with-mood", options->isWithMood, "Keep the recipe's mood among yours, if it is a new one");
    recreating.callback([options, &host] {
        host.prepare();
        recreateRecipe(host, *options);
    });
}

}  // namespace quillmere::app
