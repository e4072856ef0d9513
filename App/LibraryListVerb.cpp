#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"

namespace quillmere::app {
namespace {

void line(const char* name, const std::string& text) { std::printf("%-12s %s\n", name, safeForTerminal(text).c_str()); }

void showAsText(const LoopArtifact& piece, bool isSeed) {
    const auto& identity = piece.identity;
    std::printf("%s\n", pieceLine(piece).c_str());
    line("file", piece.url.text());
    const auto file = fileOf(piece);
    if (const auto facts = file ? factsOf(*file) : std::nullopt) {
        line("size", sizeText(facts->size));
        line("modified", iso8601(facts->modified));
    }
    line("model", identity.model);
    if (identity.prompt) line("prompt", *identity.prompt);
    line("calm", identity.calmPrompt);
    line("energetic", identity.energeticPrompt);
    if (piece.engineBuild) line("engine", *piece.engineBuild);
    if (piece.origin) line("made on", piece.origin->chip);
    const char* const without = isReadable(identity.moodID) ? "no: its mood is gone, or asks for something else today"
                                                            : "not known: its mood cannot be read";
    line("playable", piece.isPlayable() ? "yes" : without);
    if (isSeed) line("seed", "ships with the application");
}

}  // namespace

void addLibraryListVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("list", "List the pieces");
    verb.footer("Example: quillmere library list --mood designflow --json");
    auto mood = std::make_shared<std::string>();
    verb.addOption("--mood", *mood, "Only the pieces of this mood");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([mood, &host] {
        host.prepare();
        const auto pieces = piecesOf(*host.readingStore(), *mood);
        if (!host.json) {
            for (const auto& piece : pieces) std::printf("%s\n", pieceLine(piece).c_str());
            return;
        }
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginArray();
        for (const auto& piece : pieces) writePiece(writer, piece);
        writer.endArray();
        printJSON(writer);
    });
}

void addLibraryShowVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("show", "Show all that is known of a piece");
    verb.footer("Example: quillmere library show 0f3a");
    auto fingerprint = std::make_shared<std::string>();
    verb.addOption("fingerprint", *fingerprint, "Its fingerprint, or the beginning of it").required();
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([fingerprint, &host] {
        host.prepare();
        const auto& store = *host.readingStore();
        const auto piece = namedPiece(store, *fingerprint);
        if (!host.json) return showAsText(piece, store.bundledFingerprints().contains(piece.id()));
        JSONWriter writer(JSONWriter::Form::pretty);
        writePiece(writer, piece);
        printJSON(writer);
    });
}

}  // namespace quillmere::app
