#include "App/Recreation.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "App/DigestBook.hpp"
#include "App/EndOfWork.hpp"
#include "App/Engines.hpp"
#include "App/EventText.hpp"
#include "App/Output.hpp"
#include "App/Recipes.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Generation/GenerationQueue.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/FileSHA256.hpp"

namespace quillmere::app {
namespace {

// What became of one request.
struct Outcome {
    std::optional<LoopArtifact> piece;
    bool isNew = false;
    std::optional<std::string> failure;
};

// Asks the queue for one piece and waits for it, or for a signal.
Outcome render(GenerationQueue& queue, const LoopIdentity& identity, const EndOfWork& end, bool isQuiet) {
    using Progress = GenerationQueue::Progress;
    Outcome outcome;
    ProgressLine line;
    const auto observer = queue.observe([&](const Progress& progress) {  // on the queue's thread, while this one waits
        const auto& value = progress.value();
        if (const auto* stage = std::get_if<Progress::Stage>(&value)) {
            if (!isQuiet) line.show(stage->stage.label(), progressFraction(stage->stage));
        } else if (std::holds_alternative<Progress::Rendering>(value)) {
            outcome.isNew = true;
        } else if (const auto* finished = std::get_if<Progress::Finished>(&value)) {
            outcome.piece = finished->piece;
            end.announce();
        } else if (const auto* failed = std::get_if<Progress::Failed>(&value)) {
            outcome.failure = failed->message;
            end.announce();
        } else if (std::holds_alternative<Progress::Idle>(value)) {
            end.announce();
        }
    });
    queue.request(identity, GenerationPace::fast);
    while (end.wait() == EndOfWork::Reason::signal) queue.cancelAll();
    queue.stopObserving(observer);
    return outcome;
}

// The length that the recipe asks for. A length that no piece can have is damage like any other.
double lengthOf(const LoopRecipe& recipe) {
    const double seconds = recipe.seconds.value_or(trackSeconds);
    if (!std::isfinite(seconds) || seconds * 48000 < 1) throw ImportError(ImportError::InvalidInputs{});
    return std::min(seconds, trackSeconds);
}

std::string lowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The recipe's digest is one of the whole file. A library that has stored the piece without loss since has its samples
// still, and from them the plain file that engines write.
std::optional<bool> isSameAudio(const LoopArtifact& piece, const std::string& pcmDigest, const LoopRecipe& recipe,
                                const std::string& digest) {
    if (!digest.empty()) return pcmDigest == lowerCase(digest);
    if (!recipe.audioSHA256) return std::nullopt;
    const std::string expected = lowerCase(*recipe.audioSHA256);
    return FileSHA256::digest(piece.url) == expected || plainWAVDigest(piece.url.path()) == expected;
}

}  // namespace

std::optional<ImportError> whyNotHere(const LoopRecipe& recipe, const std::optional<std::string>& localBuild) {
    try {
        recipe.validateRendering(localBuild);
        return std::nullopt;
    } catch (const ImportError& error) {
        return error;
    }
}

std::optional<Recreation> recreate(const LoopRecipe& recipe, const std::string& engine, const std::string& digest,
                                   Host& host) {
    const double seconds = lengthOf(recipe);
    const auto store = host.writableStore();
    const auto engines = enginesFor(engine, store);
    if (const auto refusal = whyNotHere(recipe, engines->engineBuild(recipe.identity))) throw ImportError(*refusal);

    // Before any thread; not before the engine was asked, which may take long: until here a signal ends the program.
    const EndOfWork end;
    Outcome outcome;
    {
        GenerationQueue queue(engines, store, seconds);
        outcome = render(queue, recipe.identity, end, host.json);
    }
    if (outcome.failure) {
        host.fail(ExitCode::failure, *outcome.failure);
        return std::nullopt;
    }
    if (!outcome.piece) {
        host.fail(ExitCode::interrupted, "Stopped.");
        return std::nullopt;
    }
    Recreation done{.piece = std::move(*outcome.piece), .isNew = outcome.isNew, .pcmDigest = {}};
    done.pcmDigest = AudioPCM::digest(done.piece.url);
    done.isSame = isSameAudio(done.piece, done.pcmDigest, recipe, digest);
    if (done.isNew) {
        try {
            DigestBook digests = Host::digests(*store);
            digests.set(done.piece.id(), done.pcmDigest);
            digests.save([&](const std::string& fingerprint) { return store->artifact(fingerprint).has_value(); });
        } catch (const FileError& error) {
            host.fail(ExitCode::notSaved, std::string("The digests could not be saved: ") + error.what());
        }
    }
    if (const auto error = store->lastSaveError()) {
        host.fail(ExitCode::notSaved, "The library could not be saved: " + *error);
    }
    return done;
}

void report(const Recreation& done, Host& host) {
    const std::string file = pathText(done.piece.url.path());
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("fingerprint", done.piece.id());
        writer.member("file", file);
        writer.member("seconds", done.piece.seconds);
        writer.member("isNew", done.isNew);
        writer.member("digest", done.pcmDigest);
        writer.member("engineBuild", done.piece.engineBuild);
        if (done.isSame) writer.member("isSame", *done.isSame);
        writer.endObject();
        printJSON(writer);
    } else {
        std::printf("%s  %.0f s%s\n", safeForTerminal(file).c_str(), done.piece.seconds,
                    done.isNew ? "" : "  (already in the library)");
        std::printf("digest %s\n%s\n", done.pcmDigest.c_str(),
                    !done.isSame   ? "The recipe does not say what the original's audio was."
                    : *done.isSame ? "The audio is the same as the original's."
                                   : "The audio is not the same as the original's.");
    }
    if (done.isSame == false && host.exitCode == ExitCode::success) {
        host.fail(ExitCode::failure, "The audio is not the same as the original's.");
    }
}

}  // namespace quillmere::app
