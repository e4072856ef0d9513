#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/DigestBook.hpp"
#include "App/Host.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/NumberBetween.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/PrunePlan.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"

namespace quillmere::app {
namespace {

// The fingerprints of the recipes in the vault. Throws if the vault cannot be read: what it holds is not known then,
// and nothing may be deleted.
std::set<std::string> savedRecipes() {
    std::set<std::string> fingerprints;
    const auto data = UserFolders::applicationData();
    if (!data) return fingerprints;
    const auto file = *data / "saved.json";
    try {
        const auto text = readFileIfPresent(file, recipeFileLimit);
        if (!text) return fingerprints;
        for (const auto& recipe : RecipeBundle::decode(*text).recipes) {
            fingerprints.insert(recipe.fingerprint);
            fingerprints.insert(recipe.identity.fingerprint());
        }
    } catch (const Error& error) {
        throw Error("The vault \"" + file.string() + "\" cannot be read, so nothing is deleted: " + error.what());
    }
    return fingerprints;
}

void printAsJSON(const PrunePlan& plan, bool isDone) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("isDone", isDone);
    writer.member("kept", static_cast<std::int64_t>(plan.keeping.size()));
    writer.key("bytes");
    writer.unsignedInteger(plan.bytes());
    writer.key("pieces");
    writer.beginArray();
    for (const auto& victim : plan.victims) {
        writer.beginObject();
        writer.member("fingerprint", victim.piece.id());
        writer.member("moodID", victim.piece.identity.moodID);
        writer.member("seconds", victim.piece.seconds);
        writer.key("bytes");
        writer.unsignedInteger(victim.bytes);
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

void prune(Host& host, double minutes, bool isWanted) {
    auto safe = savedRecipes();
    const auto& store = isWanted ? host.writableStore() : host.readingStore();
    safe.merge(store->bundledFingerprints());
    const auto plan = PrunePlan::make(store->all(), store->directory(), minutes * 60, safe);
    const bool isDone = isWanted && !plan.victims.empty();
    if (isDone) {
        store->prune(plan.keeping);
        DigestBook digests = Host::digests(*store);
        for (const auto& victim : plan.victims) digests.forget(victim.piece.id());
        try {
            digests.save([&](const std::string& fingerprint) { return store->artifact(fingerprint).has_value(); });
        } catch (const FileError& error) {
            Host::warn(error.what());  // an entry too many does no harm
        }
    }
    if (host.json) {
        printAsJSON(plan, isDone);
    } else {
        for (const auto& victim : plan.victims) {
            std::printf("%s  %s\n", pieceLine(victim.piece).c_str(), sizeText(victim.bytes).c_str());
        }
        std::printf("%s %zu of %zu pieces, %s.%s\n", isDone ? "Deleted" : "To be deleted:", plan.victims.size(),
                    plan.victims.size() + plan.keeping.size(), sizeText(plan.bytes()).c_str(),
                    isDone || plan.victims.empty() ? "" : " Nothing was changed; --yes deletes.");
    }
    if (!isDone) return;
    if (const auto error = store->lastSaveError()) {
        host.fail(ExitCode::notSaved, "The library could not be saved: " + *error);
    }
}

}  // namespace

void addLibraryPruneVerb(Verb library, Host& host) {
    struct Options {
        double minutes = 0;
        bool isWanted = false;
    };
    Verb verb = library.addVerb("prune", "Delete all but the newest music of each mood");
    verb.footer(
        "Kept besides: what is in the vault, what ships with the application, recordings, and files elsewhere.\n"
        "Prints what would go; deletes it, and not to the trash, only with --yes.\n\n"
        "Example: quillmere library prune --keep 60");
    auto options = std::make_shared<Options>();
    verb.addOption("--keep", options->minutes, "Minutes of music to keep of each mood, the newest first")
        .required()
        .typeName("MINUTES")
        .check(NumberBetween(0, 1e9));
    verb.addFlag("--yes", options->isWanted, "Do it");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([options, &host] {
        host.prepare();
        prune(host, options->minutes, options->isWanted);
    });
}

}  // namespace quillmere::app
