#include <algorithm>
#include <cstdio>
#include <optional>
#include <set>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"

namespace quillmere::app {
namespace {

struct TrashOptions {
    std::vector<std::string> fingerprints;
    std::string mood;
    bool isWanted = false;
};

std::vector<LoopArtifact> chosenPieces(const LoopStore& store, const TrashOptions& options) {
    std::vector<LoopArtifact> pieces;
    if (!options.mood.empty()) pieces = piecesOf(store, options.mood);
    for (const auto& fingerprint : options.fingerprints) {
        auto piece = namedPiece(store, fingerprint);
        if (std::ranges::find(pieces, piece) == pieces.end()) pieces.push_back(std::move(piece));
    }
    return pieces;
}

void print(Host& host, const std::vector<LoopArtifact>& pieces, const std::set<std::string>& moved, bool isDone) {
    if (!host.json) {
        for (const auto& piece : pieces) {
            const bool isStaying = isDone && !moved.contains(piece.id());
            std::printf("%s%s\n", pieceLine(piece).c_str(), isStaying ? "  (not moved)" : "");
        }
        if (isDone) {
            std::printf("Moved %zu of %zu pieces to the trash.\n", moved.size(), pieces.size());
        } else {
            std::printf("To be moved to the trash: %zu pieces.%s\n", pieces.size(),
                        pieces.empty() ? "" : " Nothing was changed; --yes moves them.");
        }
        return;
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("isDone", isDone);
    writer.key("pieces");
    writer.beginArray();
    for (const auto& piece : pieces) {
        writer.beginObject();
        writer.member("fingerprint", piece.id());
        writer.member("moodID", piece.identity.moodID);
        writer.member("isMoved", moved.contains(piece.id()));
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

void trash(Host& host, const TrashOptions& options) {
    const auto& library = options.isWanted ? host.writableStore() : host.readingStore();
    const auto pieces = chosenPieces(*library, options);
    std::set<std::string> wanted;
    for (const auto& piece : pieces) wanted.insert(piece.id());
    std::set<std::string> moved;
    std::optional<std::string> saveError;
    const bool isDone = options.isWanted && !pieces.empty();
    if (isDone) {
        // The host's own store deletes what it discards, as renders leave things over; what its owner listened to goes
        // to the desktop's trash.
        LoopStore store(library->directory());
        const auto isWanted = [&](const LoopArtifact& piece) { return wanted.contains(piece.id()); };
        for (const auto& piece : store.trash(isWanted)) moved.insert(piece.id());
        saveError = store.lastSaveError();
    }
    print(host, pieces, moved, isDone);
    if (!isDone) return;
    if (moved.size() < pieces.size()) {
        host.fail(ExitCode::failure,
                  std::to_string(pieces.size() - moved.size()) +
                      " pieces were not moved: there is no trash for their place, or their files are not the library's "
                      "own.");
    }
    if (saveError) {
        // Where nothing was moved, the work failed.
        host.fail(moved.empty() ? ExitCode::failure : ExitCode::notSaved,
                  "The library could not be saved: " + *saveError);
    }
}

}  // namespace

void addLibraryTrashVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("trash", "Move pieces to the desktop's trash");
    verb.footer(
        "Prints what would be moved; moves it only with --yes.\n\n"
        "Example: quillmere library trash 0f3a 77c1 --yes");
    auto options = std::make_shared<TrashOptions>();
    verb.addOption("fingerprints", options->fingerprints, "Fingerprints, or the beginnings of them");
    verb.addOption("--mood", options->mood, "All pieces of this mood");
    verb.addFlag("--yes", options->isWanted, "Do it");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([options, &host] {
        host.prepare();
        if (options->fingerprints.empty() && options->mood.empty()) {
            throw UsageError("fingerprints", "name the pieces, or a mood.");
        }
        trash(host, *options);
    });
}

}  // namespace quillmere::app
