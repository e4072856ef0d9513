#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/KeptRecords.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere::app {
namespace {

void writeEntries(JSONWriter& writer, std::string_view name, const std::vector<KeptRecords::Entry>& entries) {
    writer.key(name);
    writer.beginArray();
    for (const auto& entry : entries) {
        writer.beginObject();
        writer.member("fingerprint", entry.piece.id());
        writer.member("moodID", entry.piece.identity.moodID);
        writer.member("url", entry.piece.url);
        writer.member("source", safeForTerminal(entry.source.string()));
        if (!entry.problem.empty()) writer.member("problem", safeForTerminal(entry.problem));
        writer.endObject();
    }
    writer.endArray();
}

void printAsJSON(const KeptRecords& records, bool isDone) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("isDone", isDone);
    writer.key("unreadable");
    writer.beginArray();
    for (const auto& file : records.unreadable) writer.string(safeForTerminal(file.string()));
    writer.endArray();
    writeEntries(writer, "recoverable", records.recoverable);
    writeEntries(writer, "missing", records.missing);
    writer.endObject();
    printJSON(writer);
}

void printAsText(const KeptRecords& records, bool isDone) {
    for (const auto& file : records.unreadable) {
        std::printf("unreadable  %s\n", safeForTerminal(file.string()).c_str());
    }
    for (const auto& entry : records.missing) {
        std::printf("missing     %s  %s\n", pieceLine(entry.piece).c_str(), safeForTerminal(entry.problem).c_str());
    }
    for (const auto& entry : records.recoverable) {
        std::printf("%s  %s\n", isDone ? "taken back " : "recoverable", pieceLine(entry.piece).c_str());
    }
    const char* const hint =
        isDone || records.recoverable.empty() ? "" : " Nothing was changed; --yes takes them back.";
    std::printf("%zu unreadable files, %zu pieces without audio, %zu pieces %s.%s\n", records.unreadable.size(),
                records.missing.size(), records.recoverable.size(), isDone ? "taken back" : "can be taken back", hint);
}

void recover(Host& host, bool isWanted) {
    const auto& store = isWanted ? host.writableStore() : host.readingStore();
    std::vector<std::filesystem::path> folders;
    for (const auto& folder : {UserFolders::applicationData(), UserFolders::configuration()}) {
        if (folder) folders.push_back(*folder);
    }
    const auto records = KeptRecords::find(*store, folders);
    const bool isDone = isWanted && !records.recoverable.empty();
    if (isDone) {
        std::vector<LoopArtifact> pieces;
        pieces.reserve(records.recoverable.size());
        for (const auto& entry : records.recoverable) pieces.push_back(entry.piece);
        store->add(std::move(pieces));
    }
    host.json ? printAsJSON(records, isDone) : printAsText(records, isDone);
    if (!isDone) return;
    if (const auto error = store->lastSaveError()) {
        host.fail(ExitCode::notSaved, "The library could not be saved: " + *error);
    }
}

}  // namespace

void addLibraryRecoverVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("recover", "Take back pieces from records that were kept aside");
    verb.footer(
        "Lists the files that could not be read, the pieces whose audio is gone, and those that can be taken back;\n"
        "takes them back only with --yes.\n\n"
        "Example: quillmere library recover");
    auto isWanted = std::make_shared<bool>(false);
    verb.addFlag("--yes", *isWanted, "Do it");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([isWanted, &host] {
        host.prepare();
        recover(host, *isWanted);
    });
}

}  // namespace quillmere::app
