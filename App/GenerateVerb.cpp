#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "App/Choice.hpp"
#include "App/CommandLine.hpp"
#include "App/DigestBook.hpp"
#include "App/EndOfWork.hpp"
#include "App/Engines.hpp"
#include "App/EventText.hpp"
#include "App/Host.hpp"
#include "App/MoodChoice.hpp"
#include "App/NumberBetween.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Generation/GenerationActivity.hpp"
#include "QuillmereKit/Generation/GenerationQueue.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere::app {
namespace {

struct GenerateOptions {
    std::string mood;
    std::int64_t blend = 1;
    std::int64_t count = 1;
    std::optional<std::int64_t> seed;
    double seconds = trackSeconds;
    std::optional<GenerationModel> model;
    GenerationEngine runtime = GenerationEngine::mlx;
    std::optional<GenerationPace> pace;
    std::optional<double> breakSeconds;
    std::string engine;
};

// Generates the asked pieces one after another. Without a break between them each is asked for from inside the event
// that ends the one before; else when the break is over.
class Generation {
public:
    Generation(const GenerateOptions& options, const Mood& mood, Host& host)
        : options_(options),
          mood_(mood),
          host_(host),
          store_(host.writableStore()),
          model_(options.model.value_or(host.settingsFile().settings().model)),
          pace_(options.pace.value_or(host.settingsFile().settings().pace)),
          breakSeconds_(options.breakSeconds.value_or(interval(pace_))),
          seed_(options.seed.value_or(randomSeed())),
          digests_(Host::digests(*store_)) {
        queue_ = std::make_unique<GenerationQueue>(enginesFor(options.engine, store_), store_, options.seconds);
    }

    void run() {
        queue_->observeEvents([this](const GenerationQueue::Event& event) { take(event); });
        requestNext();
        while (!isOver_ && !(isInterrupted_ && isBreak_)) {
            const auto longest = isBreak_ ? std::optional(breakTime()) : std::nullopt;
            switch (end_.wait(longest)) {
                case EndOfWork::Reason::announced: break;
                case EndOfWork::Reason::timeout:
                    isBreak_ = false;
                    requestNext();
                    break;
                case EndOfWork::Reason::signal:
                    isInterrupted_ = true;
                    line_.clear();
                    if (!isBreak_) queue_->cancelAll();
                    break;
            }
        }
        queue_.reset();
        line_.clear();
        conclude();
    }

private:
    static std::int64_t randomSeed() {
        std::uint64_t bits = 0;
        const UUID random = UUID::random();
        std::memcpy(&bits, random.bytes.data(), sizeof bits);
        return static_cast<std::int64_t>(bits >> 33);  // 31 bits: short enough to be typed again
    }

    void requestNext() {
        const auto model = identityModel(options_.runtime, model_);
        const auto identity = mood_.identity(BlendStep(options_.blend), seed_ + done_, model);
        isNew_ = false;
        queue_->request(identity.value(), pace_);
    }

    // On the queue's own thread.
    void take(const GenerationQueue::Event& event) {
        using Progress = GenerationQueue::Progress;
        if (host_.json) {
            std::printf("%s\n", safeJSON(jsonLine(event)).c_str());
            std::fflush(stdout);
        }
        const auto& value = event.progress.value();
        if (const auto* stage = std::get_if<Progress::Stage>(&value)) {
            if (!host_.json) line_.show(heading() + stage->stage.label(), progressFraction(stage->stage));
        } else if (std::holds_alternative<Progress::Rendering>(value)) {
            isNew_ = true;
        } else if (const auto* finished = std::get_if<Progress::Finished>(&value)) {
            report(finished->piece);
            if (isNew_) keepDigest(finished->piece);
            ++done_;
            if (store_->lastSaveError() || done_ == options_.count || isInterrupted_) {
                end();
            } else if (isNew_ && breakTime().count() > 0) {
                takeBreak();
            } else {
                requestNext();
            }
        } else if (const auto* failed = std::get_if<Progress::Failed>(&value)) {
            failure_ = failed->message;
            end();
        } else if (std::holds_alternative<Progress::Idle>(value)) {
            end();
        }
    }

    // What the samples are now, `library verify` proves later.
    void keepDigest(const LoopArtifact& piece) {
        try {
            digests_.set(piece.id(), AudioPCM::digest(piece.url));
            digests_.save([&](const std::string& fingerprint) { return store_->artifact(fingerprint).has_value(); });
            digestFailure_.reset();
        } catch (const Error& error) {
            digestFailure_ = error.what();
        }
    }

    void end() {
        isOver_ = true;
        end_.announce();
    }

    // Nothing runs until the main thread asks for the next piece.
    void takeBreak() {
        const auto seconds = std::llround(breakSeconds_);
        if (!host_.json) line_.show(heading() + GenerationActivity(GenerationActivity::Waiting{seconds}).label(), 0);
        isBreak_ = true;
        end_.announce();
    }

    [[nodiscard]] std::chrono::milliseconds breakTime() const {
        return std::chrono::milliseconds(std::llround(breakSeconds_ * 1000));
    }

    [[nodiscard]] std::string heading() const {
        return options_.count == 1 ? "" : std::to_string(done_ + 1) + " of " + std::to_string(options_.count) + " · ";
    }

    void report(const LoopArtifact& artifact) {
        if (host_.json) return;
        line_.clear();
        std::printf("%s  %.0f s  seed %lld%s\n", safeForTerminal(artifact.url.path().string()).c_str(),
                    artifact.seconds, static_cast<long long>(artifact.identity.seed),
                    isNew_ ? "" : "  (already in the library)");
        std::fflush(stdout);
    }

    void conclude() {
        if (failure_) return host_.fail(ExitCode::failure, *failure_);
        if (const auto error = store_->lastSaveError()) {
            return host_.fail(ExitCode::notSaved, "The library could not be saved: " + *error);
        }
        if (digestFailure_) {
            return host_.fail(ExitCode::notSaved, "The digests could not be saved: " + *digestFailure_);
        }
        if (done_ < options_.count) return host_.fail(ExitCode::interrupted, "Stopped.");
    }

    EndOfWork end_;  // first: it must be there before any thread is
    const GenerateOptions& options_;
    const Mood& mood_;
    Host& host_;
    const std::shared_ptr<LoopStore> store_;
    const GenerationModel model_;
    const GenerationPace pace_;
    const double breakSeconds_;
    const std::int64_t seed_;
    ProgressLine line_;
    std::int64_t done_ = 0;
    bool isNew_ = false;
    std::atomic<bool> isInterrupted_ = false;
    std::atomic<bool> isBreak_ = false;
    std::atomic<bool> isOver_ = false;
    DigestBook digests_;
    std::optional<std::string> digestFailure_;
    std::optional<std::string> failure_;
    std::unique_ptr<GenerationQueue> queue_;  // last, so that it ends before what its handler uses goes
};

}  // namespace

void addGenerateVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("generate", "Generate pieces of music for a mood and file them in the loop library");
    verb.footer("Example: quillmere generate --mood designflow --blend calm --count 3 --seconds 60");
    auto options = std::make_shared<GenerateOptions>();
    const auto model = choiceOf<GenerationModel>();
    const auto pace = choiceOf<GenerationPace>();
    const Choice runtime(
        {{"standard", numberOf(GenerationEngine::mlx)}, {"background", numberOf(GenerationEngine::stableAudioCoreML)}});

    verb.addOption("--mood", options->mood, "The mood's id, as 'quillmere moods' lists it").required();
    addBlendOption(verb, options->blend);
    verb.addOption("--count", options->count, "How many pieces").between(1, 100000).defaultText("1");
    verb.addOption("--seed", options->seed, "The first piece's seed; the next ones follow it (default: random)")
        .notNegative();
    verb.addOption("--seconds", options->seconds, "Length of a piece, up to 120")
        .check(NumberBetween(1, trackSeconds))
        .defaultText("120");
    verb.addOption("--model", options->model, "The model that makes the identity (default: the setting)")
        .transform(model, model.names());
    verb.addOption("--runtime", options->runtime, "The runtime that makes the identity")
        .transform(runtime, runtime.names())
        .defaultText("standard");
    verb.addOption("--pace", options->pace, "How hard the computer may work (default: the setting)")
        .transform(pace, pace.names());
    verb.addOption("--break", options->breakSeconds, "Seconds of rest between two pieces (default: the pace's own)")
        .check(NumberBetween(0, 86400));
    verb.addOption("--engine", options->engine, "The command of an engine (default: Tonebed)").typeName("CMD");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);

    verb.callback([options, &host] {
        host.prepare();
        const Mood mood = playableMood("--mood", options->mood);
        if (options->seed && *options->seed > std::numeric_limits<std::int64_t>::max() - options->count) {
            throw UsageError("--seed", "too large for this many pieces");
        }
        Generation(*options, mood, host).run();
    });
}

}  // namespace quillmere::app
