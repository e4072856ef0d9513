#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/EndOfWork.hpp"
#include "App/Host.hpp"
#include "App/LibraryCheck.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Output.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere::app {
namespace {

void writeFindings(JSONWriter& writer, std::string_view name, const std::vector<LibraryCheck::Finding>& findings) {
    writer.key(name);
    writer.beginArray();
    for (const auto& finding : findings) {
        writer.beginObject();
        writer.member("fingerprint", finding.fingerprint);
        // A path is bytes, and need not be text.
        writer.member("file", safeForTerminal(finding.place));
        writer.member("problem", safeForTerminal(finding.problem));
        writer.endObject();
    }
    writer.endArray();
}

void printAsJSON(const LibraryCheck& check) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("isSound", check.isSound());
    writer.member("proved", static_cast<std::int64_t>(check.proved));
    writer.member("unproved", static_cast<std::int64_t>(check.unproved));
    writeFindings(writer, "damaged", check.damaged);
    writeFindings(writer, "missing", check.missing);
    for (const auto& [name, texts] : {std::pair("unlisted", &check.unlisted), {"unreadable", &check.unreadable}}) {
        writer.key(name);
        writer.beginArray();
        for (const auto& text : *texts) writer.string(safeForTerminal(text));
        writer.endArray();
    }
    writer.endObject();
    printJSON(writer);
}

void printAsText(const LibraryCheck& check) {
    const auto print = [](const char* kind, const std::string& text) {
        std::printf("%-10s %s\n", kind, safeForTerminal(text).c_str());
    };
    for (const auto& text : check.unreadable) print("unreadable", text);
    for (const auto& finding : check.damaged) print("damaged", finding.fingerprint + "  " + finding.problem);
    for (const auto& finding : check.missing) print("missing", finding.fingerprint + "  " + finding.place);
    for (const auto& file : check.unlisted) print("unlisted", file);
    std::printf("%zu proved, %zu without a digest to compare with, %zu damaged, %zu missing; %zu unlisted files.\n",
                check.proved, check.unproved, check.damaged.size(), check.missing.size(), check.unlisted.size());
}

}  // namespace

void addLibraryVerifyVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("verify", "Prove that the pieces are what they were when they were made");
    verb.footer(
        "Decodes every piece and compares its samples with the digest that was kept. Changes nothing.\n"
        "Ends with 3 if anything is damaged, missing, unlisted or cannot be looked at.\n\n"
        "Example: quillmere library verify --json");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([&host] {
        host.prepare();
        // A mistyped place must not be called sound.
        const bool isNamed = !host.library.empty() || UserFolders::isMoved();
        if (isNamed && !fileExists(host.libraryFolder())) {
            throw Error("There is no library \"" + host.libraryFolder().string() + "\".");
        }
        const Interruption interruption;
        ProgressLine progress;
        try {
            const auto check = LibraryCheck::make(
                host.libraryFolder(), interruption.token(),
                [&](std::size_t index, std::size_t count, const std::string& fingerprint) {
                    progress.show(std::to_string(index + 1) + " of " + std::to_string(count) + " · " + fingerprint,
                                  static_cast<double>(index) / static_cast<double>(count));
                });
            progress.clear();
            host.json ? printAsJSON(check) : printAsText(check);
            if (!check.isSound()) host.fail(ExitCode::damage, "The library is not sound.");
        } catch (const CancellationError&) {
            progress.clear();
            host.fail(ExitCode::interrupted, "Stopped.");
        }
    });
}

}  // namespace quillmere::app
