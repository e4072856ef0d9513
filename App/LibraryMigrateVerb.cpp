#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/DigestBook.hpp"
#include "App/EndOfWork.hpp"
#include "App/Host.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

namespace quillmere::app {
namespace {

struct Migrated {
    std::string fingerprint;
    std::uint64_t before = 0;  // bytes
    std::uint64_t after = 0;
};

struct Refused {
    std::string fingerprint;
    std::string message;
    bool isDamage = false;
};

class Migration {
public:
    explicit Migration(Host& host)
        : host_(host), store_(host.writableStore()), own_(store_->directory()), digests_(Host::digests(*store_)) {
        // Packed now, damaged samples would count as those that were made.
        if (digests_.problem()) throw Error("No piece is packed while the digests cannot be read whole.");
    }

    void run() {
        const auto candidates = store_->losslessMigrationCandidates();
        try {
            for (std::size_t index = 0; index < candidates.size(); ++index) {
                const auto& piece = candidates[index];
                if (interruption_.token().stop_requested()) break;
                progress_.show(
                    std::to_string(index + 1) + " of " + std::to_string(candidates.size()) + " · " + piece.id(),
                    static_cast<double>(index) / static_cast<double>(candidates.size()));
                migrate(piece);
                constexpr std::size_t piecesBetweenSaves = 50;
                if (migrated_.size() % piecesBetweenSaves == piecesBetweenSaves - 1) saveDigests();
            }
        } catch (const CancellationError&) {
            // What was done is done; the rest is as it was.
        }
        saveDigests();
        progress_.clear();
        host_.json ? printAsJSON() : printAsText();
        conclude();
    }

private:
    void migrate(const LoopArtifact& piece) {
        const auto fingerprint = piece.id();
        const auto& stop = interruption_.token();
        try {
            const auto file = fileOf(piece);
            if (!file) throw Error("Its address names no file.");
            const auto facts = own_.facts(*file);
            const auto digest = AudioPCM::digest(piece.url, stop);
            const auto made = digests_.digest(fingerprint);
            if (made && *made != digest) {
                refused_.push_back(
                    {fingerprint, "Its samples are not those that were made, so it is left as it is.", true});
                return;
            }
            const bool isMigrated = store_->migrateToLossless(
                piece, [&](const FileURL& source, const FileURL& target) { encodeALAC(source, target, stop); }, stop);
            if (!isMigrated) {
                refused_.push_back({fingerprint, "It has changed meanwhile.", false});
                return;
            }
            if (!made) digests_.set(fingerprint, digest);
            const auto now = store_->artifact(fingerprint);
            const auto place = now ? fileOf(*now) : std::nullopt;
            const auto result = place ? own_.facts(*place) : std::nullopt;
            if (facts && result) keepTime(*place, facts->modified);
            migrated_.push_back({fingerprint, facts ? facts->size : 0, result ? result->size : 0});
        } catch (const CancellationError&) {
            throw;
        } catch (const Error& error) {
            refused_.push_back({fingerprint, error.what(), false});
        }
    }

    // A piece is as old as its music, whatever it is packed in.
    static void keepTime(const std::filesystem::path& file, Date modified) {
        const auto age = std::chrono::system_clock::now() - modified;
        std::error_code ignored;
        std::filesystem::last_write_time(file,
                                         std::filesystem::file_time_type::clock::now() -
                                             std::chrono::duration_cast<std::filesystem::file_time_type::duration>(age),
                                         ignored);
    }

    void saveDigests() {
        try {
            digests_.save([&](const std::string& fingerprint) { return store_->artifact(fingerprint).has_value(); });
            digestFailure_.reset();
        } catch (const FileError& error) {
            digestFailure_ = error.what();
        }
    }

    void printAsJSON() const {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.key("migrated");
        writer.beginArray();
        for (const auto& piece : migrated_) {
            writer.beginObject();
            writer.member("fingerprint", piece.fingerprint);
            writer.key("bytesBefore");
            writer.unsignedInteger(piece.before);
            writer.key("bytesAfter");
            writer.unsignedInteger(piece.after);
            writer.endObject();
        }
        writer.endArray();
        writer.key("failed");
        writer.beginArray();
        for (const auto& piece : refused_) {
            writer.beginObject();
            writer.member("fingerprint", piece.fingerprint);
            writer.member("message", safeForTerminal(piece.message));
            writer.endObject();
        }
        writer.endArray();
        writer.endObject();
        printJSON(writer);
    }

    void printAsText() const {
        std::uint64_t before = 0;
        std::uint64_t after = 0;
        for (const auto& piece : migrated_) {
            before += piece.before;
            after += piece.after;
            std::printf("%s  %s -> %s\n", piece.fingerprint.c_str(), sizeText(piece.before).c_str(),
                        sizeText(piece.after).c_str());
        }
        std::printf("%zu pieces are lossless now, %s instead of %s.\n", migrated_.size(), sizeText(after).c_str(),
                    sizeText(before).c_str());
    }

    void conclude() {
        for (const auto& piece : refused_) {
            host_.fail(piece.isDamage ? ExitCode::damage : ExitCode::failure, piece.fingerprint + ": " + piece.message);
        }
        if (const auto error = store_->lastSaveError()) {
            return host_.fail(ExitCode::notSaved, "The library could not be saved: " + *error);
        }
        if (digestFailure_) {
            return host_.fail(ExitCode::notSaved, "The digests could not be saved: " + *digestFailure_);
        }
        if (interruption_.token().stop_requested()) host_.fail(ExitCode::interrupted, "Stopped.");
    }

    const Interruption interruption_;
    Host& host_;
    const std::shared_ptr<LoopStore> store_;
    const OwnFolder own_;
    DigestBook digests_;
    ProgressLine progress_;
    std::vector<Migrated> migrated_;
    std::vector<Refused> refused_;
    std::optional<std::string> digestFailure_;
};

void printPlan(Host& host) {
    const auto candidates = host.readingStore()->losslessMigrationCandidates();
    if (!host.json) {
        for (const auto& piece : candidates) std::printf("%s\n", pieceLine(piece).c_str());
        std::printf("%zu pieces would be migrated.\n", candidates.size());
        return;
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.key("candidates");
    writer.beginArray();
    for (const auto& piece : candidates) writer.string(piece.id());
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

}  // namespace

void addLibraryMigrateVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("migrate", "Pack WAV pieces as Apple Lossless, sample for sample the same");
    verb.footer(
        "A WAV file goes only when its lossless twin was decoded, found equal and recorded.\n\n"
        "Example: quillmere library migrate --dry-run");
    auto isDry = std::make_shared<bool>(false);
    verb.addFlag("--dry-run", *isDry, "Only list the pieces that would be migrated");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([isDry, &host] {
        host.prepare();
        if (*isDry) return printPlan(host);
        Migration(host).run();
    });
}

}  // namespace quillmere::app
