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
#include "QuillmereKit/Library/LoopFolder.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"

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
        if (!replacedFile::lookAt(file)) return fingerprints;
        // A link that leads nowhere is no empty vault: what it names may only be away.
        const auto text = readFile(file, RecipeVault::mostBytes, FinalLink::followed);
        for (const auto& recipe : RecipeBundle::decode(text).recipes) {
            fingerprints.insert(recipe.fingerprint);
            fingerprints.insert(recipe.identity.fingerprint());
        }
    } catch (const Error& error) {
        throw Error("The vault \"" + file.string() + "\" cannot be read, so nothing is deleted: " + error.what());
    }
    return fingerprints;
}

// Nobody may save a recipe whose piece is about to be deleted. Nothing where the user has no place for a vault, or may
// not write there: then none of his programs saves any.
std::shared_ptr<FolderLock> lockVault() {
    if (!UserFolders::applicationData()) return nullptr;
    try {
        return Host::lockData();
    } catch (const FileError& error) {
        const bool mayNotWrite =
            error.code() == std::errc::permission_denied || error.code() == std::errc::read_only_file_system;
        if (mayNotWrite) return nullptr;
        throw;
    }
}

// What became of a plan.
struct Pruned {
    std::set<std::string> deleted;  // fingerprints of the pieces that are gone, entry and file
    std::set<std::string> dropped;  // of those whose entries alone are gone
    std::uint64_t bytes = 0;        // of the deleted ones

    // What a line of a piece ends with.
    [[nodiscard]] const char* remark(const std::string& fingerprint) const {
        if (deleted.contains(fingerprint)) return "";
        return dropped.contains(fingerprint) ? "  (its file stays)" : "  (not deleted)";
    }
};

// The store may refuse, and a file may stay though its entry went: what is told is what can be seen afterwards.
Pruned carryOut(const PrunePlan& plan, LoopStore& store) {
    store.prune(plan.keeping);
    Pruned pruned;
    DigestBook digests = Host::digests(store);
    for (const auto& victim : plan.victims) {
        const auto fingerprint = victim.piece.id();
        const auto file = fileOf(victim.piece);
        if (store.artifact(fingerprint)) continue;
        if (!file || !LoopFolder::isNothingAt(*file)) {
            pruned.dropped.insert(fingerprint);
            continue;
        }
        digests.forget(fingerprint);
        pruned.deleted.insert(fingerprint);
        pruned.bytes += victim.bytes;
    }
    try {
        digests.save([&](const std::string& fingerprint) { return store.artifact(fingerprint).has_value(); });
    } catch (const FileError& error) {
        Host::warn(error.what());  // an entry too many does no harm
    }
    return pruned;
}

void printAsJSON(const PrunePlan& plan, const std::optional<Pruned>& pruned) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("isDone", pruned && !pruned->deleted.empty());
    writer.member("kept", static_cast<std::int64_t>(plan.keeping.size()));
    writer.key("bytes");
    writer.unsignedInteger(pruned ? pruned->bytes : plan.bytes());
    writer.key("pieces");
    writer.beginArray();
    for (const auto& victim : plan.victims) {
        writer.beginObject();
        writer.member("fingerprint", victim.piece.id());
        writer.member("moodID", victim.piece.identity.moodID);
        writer.member("seconds", victim.piece.seconds);
        writer.key("bytes");
        writer.unsignedInteger(victim.bytes);
        writer.member("isDeleted", pruned && pruned->deleted.contains(victim.piece.id()));
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

void printAsText(const PrunePlan& plan, const std::optional<Pruned>& pruned) {
    for (const auto& victim : plan.victims) {
        std::printf("%s  %s%s\n", pieceLine(victim.piece).c_str(), sizeText(victim.bytes).c_str(),
                    pruned ? pruned->remark(victim.piece.id()) : "");
    }
    std::printf("%s %zu of %zu pieces, %s.%s\n",
                pruned ? "Deleted" : "To be deleted:", pruned ? pruned->deleted.size() : plan.victims.size(),
                plan.victims.size() + plan.keeping.size(), sizeText(pruned ? pruned->bytes : plan.bytes()).c_str(),
                pruned || plan.victims.empty() ? "" : " Nothing was changed; --yes deletes.");
}

void prune(Host& host, double minutes, bool isWanted) {
    const auto lock = isWanted ? lockVault() : nullptr;
    auto safe = savedRecipes();
    const auto& store = isWanted ? host.writableStore() : host.readingStore();
    safe.merge(store->bundledFingerprints());
    const auto plan = PrunePlan::make(store->all(), store->directory(), minutes * 60, safe);
    std::optional<Pruned> pruned;
    if (isWanted && !plan.victims.empty()) pruned = carryOut(plan, *store);
    host.json ? printAsJSON(plan, pruned) : printAsText(plan, pruned);
    if (!pruned) return;
    if (const auto remaining = plan.victims.size() - pruned->deleted.size(); remaining > 0) {
        host.fail(ExitCode::failure, std::to_string(remaining) + " pieces were not deleted, or their files were not.");
    }
    if (const auto error = store->lastSaveError()) {
        // Where nothing has changed, the work failed.
        const bool isChanged = !pruned->deleted.empty() || !pruned->dropped.empty();
        host.fail(isChanged ? ExitCode::notSaved : ExitCode::failure, "The library could not be saved: " + *error);
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
