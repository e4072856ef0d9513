#include "Renderers/ProcessRenderer.hpp"

#include <fcntl.h>
#include <limits.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <system_error>
#include <utility>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "Renderers/EngineAudio.hpp"
#include "Renderers/EngineProtocol.hpp"
#include "Renderers/EngineRun.hpp"
#include "Renderers/RenderFolder.hpp"
#include "Renderers/SupervisorProgram.hpp"

namespace quillmere {
namespace {

using Reason = EngineFailure::Reason;
using std::chrono::milliseconds;

constexpr std::string_view audioExtension = ".wav";

/// How far behind other programs an engine stands, as the system counts: 0 is a program like any other, 19 the last.
constexpr int niceness(GenerationPace pace) {
    switch (processQualityOfService(pace)) {
        case ProcessQualityOfService::background: return 19;
        case ProcessQualityOfService::standard: return 10;
        case ProcessQualityOfService::userInitiated: return 0;
    }
    return 0;
}

template <class T>
T readReport(std::string_view json, const std::string& what) {
    try {
        return decodeJSON<T>(json);
    } catch (const JSONError& error) {
        throw EngineFailure(Reason::malformedReport,
                            "The engine sent " + what + " that cannot be read: " + error.what());
    }
}

/// The file name that the finished piece will have. Throws for an identity that cannot name a file.
std::string fileName(const LoopIdentity& identity) {
    std::string name = identity.filename() + std::string(audioExtension);
    if (name.find_first_of(std::string_view("/\0", 2)) != std::string::npos || name.size() > NAME_MAX) {
        throw EngineFailure(Reason::unusableRequest, "The mood's identifier cannot be part of a file name.");
    }
    return name;
}

std::int64_t framesOf(double seconds) {
    constexpr double longest = 3600;
    const double frames = std::round(seconds * engineProtocol::sampleRate);
    if (!(frames >= 1 && seconds <= longest)) {
        throw EngineFailure(Reason::unusableRequest, "The length must be more than nothing and at most an hour.");
    }
    return static_cast<std::int64_t>(frames);
}

template <class Request>
std::string requestLine(const Request& makeLine) {
    try {
        return makeLine();
    } catch (const EncodingError& error) {
        throw EngineFailure(Reason::unusableRequest,
                            std::string("The request cannot be written down: ") + error.what());
    }
}

/// Passes an engine's reports on, of a burst only the newest, and keeps its result.
class RenderListener final : public EngineListener {
public:
    struct Handlers {
        const GenerationService::AudioHandler& onAudio;
        const GenerationService::StageHandler& onStage;
    };

    RenderListener(const RenderFolder& folder, std::int64_t frames, Handlers handlers, milliseconds interval,
                   std::stop_token stop)
        : folder_(folder), handlers_(handlers), interval_(interval), stop_(std::move(stop)), meter_(frames) {}

    Heard hear(std::string_view line) override {
        if (result_) return Heard::nothing;
        auto report = engineProtocol::report(line);
        if (!report) return Heard::nothing;
        if (auto* stage = std::get_if<GenerationStage>(&*report)) {
            stage_ = *stage;
        } else if (auto* audio = std::get_if<engineProtocol::AudioLine>(&*report)) {
            audio_ = std::move(audio->json);
        } else {
            result_ = std::get<engineProtocol::ResultLine>(std::move(*report)).json;
            return Heard::theLast;
        }
        return Heard::something;
    }

    std::optional<Clock::time_point> report(Clock::time_point now) override {
        if (!stage_ && !audio_) return std::nullopt;
        if (now < due_) return due_;
        reportNow();
        due_ = Clock::now() + interval_;
        return std::nullopt;
    }

    void reportNow() {
        if (const auto stage = std::exchange(stage_, std::nullopt); stage && handlers_.onStage) {
            handlers_.onStage(*stage);
        }
        const auto json = std::exchange(audio_, std::nullopt);
        if (!json) return;
        const auto audio = readReport<engineProtocol::PartialAudio>(*json, "a report of partial audio");
        const auto loudness = meter_.measure(folder_, audio.file, stop_);
        if (!loudness || !handlers_.onAudio) return;
        handlers_.onAudio({.url = FileURL::fromPath(folder_.path() / audio.file),
                           .seconds = loudness->seconds.value_or(0),
                           .loudness = loudness});
    }

    [[nodiscard]] const std::optional<std::string>& result() const noexcept { return result_; }

private:
    const RenderFolder& folder_;
    const Handlers handlers_;
    const milliseconds interval_;
    const std::stop_token stop_;
    PartialMeter meter_;
    std::optional<GenerationStage> stage_;  // not passed on yet
    std::optional<std::string> audio_;      // not passed on yet
    std::optional<std::string> result_;
    Clock::time_point due_{};
};

/// Waits for the one answer to a question.
class BuildListener final : public EngineListener {
public:
    Heard hear(std::string_view line) override {
        if (answer_) return Heard::nothing;
        auto report = engineProtocol::report(line);
        auto* result = report ? std::get_if<engineProtocol::ResultLine>(&*report) : nullptr;
        if (result == nullptr) return Heard::nothing;
        answer_ = std::move(result->json);
        return Heard::theLast;
    }
    std::optional<Clock::time_point> report(Clock::time_point) override { return std::nullopt; }

    [[nodiscard]] const std::optional<std::string>& answer() const noexcept { return answer_; }

private:
    std::optional<std::string> answer_;
};

constexpr milliseconds longestTime = std::chrono::hours(24);

ProcessRendererOptions withinADay(ProcessRendererOptions options) {
    for (auto* time : {&options.grace, &options.silenceLimit, &options.lingerLimit, &options.filingLimit,
                       &options.buildLimit, &options.reportInterval, &options.burst}) {
        *time = std::clamp(*time, milliseconds(0), longestTime);
    }
    return options;
}

milliseconds stretched(milliseconds time, double share) {
    const auto longer = std::chrono::duration<double, std::milli>(time) / share;
    return std::min(std::chrono::duration_cast<milliseconds>(longer), longestTime);
}

/// What every run has in common.
EngineRun::Settings settingsFor(const std::vector<std::string>& command, const ProcessRendererOptions& options,
                                GenerationPace pace) {
    EngineRun::Settings settings;
    if (!options.supervisor.empty()) {
        settings.supervisor = options.supervisor;
    } else if (const auto found = findSupervisorProgram()) {
        settings.supervisor = *found;
    } else {
        throw EngineFailure(Reason::notStarted,
                            "The program quillmere-supervisor, under which engines run, was not found. It belongs "
                            "beside the running program, or where QuillmereKit is installed.");
    }
    const auto program = findProgram(command[0]);
    if (!program) {
        throw EngineFailure(Reason::notStarted, "The engine \u201c" + command[0] + "\u201d is not a program.");
    }
    settings.command = command;
    settings.command[0] = program->string();
    settings.niceness = niceness(pace);
    settings.share = dutyCycle(pace);
    settings.burst = options.burst;
    settings.grace = options.grace;
    settings.silenceLimit = stretched(options.silenceLimit, settings.share);
    settings.lingerLimit = stretched(options.lingerLimit, settings.share);
    settings.lineLimit = options.lineLimit;
    settings.outputLimit = options.outputLimit;
    return settings;
}

}  // namespace

/// What ends a run early: its caller or the renderer's destruction. `wake` turns readable then.
class ProcessRenderer::Cancellation {
public:
    Cancellation(const std::stop_token& caller, const std::stop_token& owner)
        : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          toWake_(both_.get_token(), [this] { ring(); }),
          fromCaller_(caller, [this] { both_.request_stop(); }),
          fromOwner_(owner, [this] { both_.request_stop(); }) {
        if (!wake_.isOpen()) {
            throw EngineFailure(Reason::notStarted, "The engine could not be started (eventfd: " +
                                                        systemCalls::lastError().message() + ").");
        }
    }

    [[nodiscard]] int wake() const noexcept { return wake_.number(); }
    [[nodiscard]] std::stop_token token() const noexcept { return both_.get_token(); }
    void check() const {
        if (both_.stop_requested()) throw CancellationError();
    }

private:
    void ring() const noexcept {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(wake_.number(), &one, sizeof one));
    }

    using Callback = std::stop_callback<std::function<void()>>;
    const Descriptor wake_;
    std::stop_source both_;
    const Callback toWake_, fromCaller_, fromOwner_;
};

/// Counts itself among the renderer's work as long as it lives.
class ProcessRenderer::Work {
public:
    explicit Work(ProcessRenderer& renderer) : renderer_(renderer) {
        const std::lock_guard lock(renderer_.mutex_);
        ++renderer_.working_;
    }
    ~Work() {
        const std::lock_guard lock(renderer_.mutex_);
        --renderer_.working_;
        renderer_.changed_.notify_all();  // under the lock: the renderer may go as soon as it is free
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

private:
    ProcessRenderer& renderer_;
};

ProcessRenderer::ProcessRenderer(std::vector<std::string> command, std::shared_ptr<LoopStore> store,
                                 ProcessRendererOptions options)
    : command_([&] {
          precondition(!command.empty() && !command[0].empty(), "A renderer needs the command of an engine.");
          // The engine runs in another folder, and this process may change its own.
          const std::filesystem::path program = command[0];
          if (program.has_parent_path()) command[0] = std::filesystem::absolute(program).string();
          return std::move(command);
      }()),
      store_(std::move(store)),
      options_(withinADay(std::move(options))) {
    precondition(store_ != nullptr, "A renderer needs a store.");
}

ProcessRenderer::~ProcessRenderer() {
    lifetime_.request_stop();
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return working_ == 0; });
}

std::optional<std::string> ProcessRenderer::engineBuild(const LoopIdentity& identity) {
    const Work work(*this);
    try {
        return build(identity, Cancellation({}, lifetime_.get_token()));
    } catch (const Error&) {
        return std::nullopt;  // no engine could be asked, or the renderer is being destroyed
    }
}

std::optional<std::string> ProcessRenderer::build(const LoopIdentity& identity, const Cancellation& cancellation) {
    std::unique_lock lock(mutex_);
    const auto stop = cancellation.token();
    changed_.wait(lock, stop, [&] { return !asking_.contains(identity.model); });
    cancellation.check();
    if (const auto known = builds_.find(identity.model); known != builds_.end()) return known->second;

    const auto mark = asking_.insert(identity.model).first;
    lock.unlock();
    const auto unmark = [&] {
        lock.lock();
        asking_.erase(mark);
        changed_.notify_all();
    };
    std::optional<std::string> answer;
    try {
        answer = askForBuild(identity, cancellation);
    } catch (...) {
        unmark();
        throw;
    }
    unmark();
    if (answer) builds_.emplace(identity.model, *answer);
    return answer;
}

std::optional<std::string> ProcessRenderer::askForBuild(const LoopIdentity& identity,
                                                        const Cancellation& cancellation) const {
    try {
        auto settings = settingsFor(command_, options_, GenerationPace::fast);
        settings.silenceLimit = options_.buildLimit;  // only the answer counts as something said
        settings.lingerLimit = std::min(options_.lingerLimit, options_.buildLimit);
        settings.wake = cancellation.wake();
        const std::string question = engineProtocol::buildQuestion(identity);
        BuildListener listener;
        EngineRun(settings).run(question, listener);
        if (!listener.answer()) return std::nullopt;
        return decodeJSON<engineProtocol::Build>(*listener.answer()).text;
    } catch (const CancellationError&) {
        throw;
    } catch (const Error&) {
        return std::nullopt;  // an engine that does not know can still render
    }
}

LoopArtifact ProcessRenderer::render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                     const AudioHandler& onAudio, const StageHandler& onStage, std::stop_token stop) {
    const Work work(*this);
    const Cancellation cancellation(stop, lifetime_.get_token());
    cancellation.check();
    const std::string name = fileName(identity);
    const std::int64_t frames = framesOf(seconds);
    if (onStage) onStage(GenerationStage::Preparing{});
    std::call_once(leftoversRemoved_, [&] { RenderFolder::removeLeftovers(store_->directory()); });

    auto settings = settingsFor(command_, options_, pace);
    auto engine = build(identity, cancellation);
    const RenderFolder folder(store_->directory());
    settings.folder = folder.number();
    settings.folderPath = folder.path();
    settings.wake = cancellation.wake();
    const std::string request = requestLine([&] {
        return engineProtocol::line({identity, seconds, frames, pace, folder.path()});
    });
    RenderListener listener(folder, frames, {onAudio, onStage}, options_.reportInterval, cancellation.token());
    {
        EngineRun run(settings);
        run.run(request, listener);
        listener.reportNow();
        if (!listener.result()) {
            const std::string tail = run.errorText();
            throw EngineFailure(Reason::noResult,
                                "The engine ended without a result" + (tail.empty() ? "." : ": " + tail));
        }
    }

    // From here on nothing of the engine lives, and what it left holds still.
    if (onStage) onStage(GenerationStage::Processing{});
    cancellation.check();
    auto result = readReport<engineProtocol::Result>(*listener.result(), "a result");
    if (std::abs(result.seconds * engineProtocol::sampleRate - static_cast<double>(frames)) > 0.5) {
        throw EngineFailure(Reason::wrongAudio, "The engine's result has another length than was asked for.");
    }
    const auto file = folder.open(result.file);
    auto quality = result.quality.value_or(LoopQuality{});
    quality.loudness = measureResult(file, folder.path() / result.file, frames, cancellation.token());
    LoopArtifact artifact{.identity = identity,
                          .url = FileURL::fromPath(store_->directory() / name),
                          .seconds = static_cast<double>(frames) / engineProtocol::sampleRate,
                          .seamDB = result.seamDB,
                          .quality = quality,
                          .leadIn = result.leadIn,
                          .engineBuild = std::move(engine),
                          .origin = options_.origin};
    cancellation.check();
    if (deliver(artifact, [&] { return folder.moveOut(result.file, file, name); })) return artifact;
    throw EngineFailure(Reason::nameInUse, "The library holds a file \u201c" + name + "\u201d already.");
}

// False where the file that stands in the piece's place must stay.
bool ProcessRenderer::deliver(const LoopArtifact& piece, const std::function<bool()>& moveOut) {
    const std::lock_guard lock(delivering_);
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(delivered_, [&](const Delivery& earlier) {
        // One that was listed and removed since, and whose file is back, is not waited for.
        return now - earlier.time >= options_.filingLimit || store_->contains(earlier.piece.identity) ||
               !fileExists(earlier.piece.url.path());
    });
    const bool isAwaited =
        std::ranges::any_of(delivered_, [&](const Delivery& earlier) { return earlier.piece.url == piece.url; });
    delivered_.push_back({piece, now});  // before the move, which nothing may follow that can fail
    try {
        // That the store lists nothing there proves nothing: the entry may have been lost, or be about to come.
        if (moveOut() || (!isAwaited && store_->moveUnstoredAside(piece.url) && moveOut())) return true;
    } catch (...) {
        delivered_.pop_back();
        throw;
    }
    delivered_.pop_back();
    return false;
}

LoopArtifact ProcessRenderer::render(const LoopIdentity& identity, double seconds, GenerationPace pace,
                                     const PartialHandler& onPartial, const StageHandler& onStage,
                                     std::stop_token stop) {
    AudioHandler onAudio;
    if (onPartial) onAudio = [&](const GenerationAudio& audio) { onPartial(audio.url, audio.seconds); };
    return render(identity, seconds, pace, onAudio, onStage, std::move(stop));
}

LoopArtifact ProcessRenderer::render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                     const StageHandler& onStage, std::stop_token stop) {
    return render(identity, seconds, GenerationPace::fast, onPartial, onStage, std::move(stop));
}

LoopArtifact ProcessRenderer::render(const LoopIdentity& identity, double seconds, const PartialHandler& onPartial,
                                     std::stop_token stop) {
    return render(identity, seconds, GenerationPace::fast, onPartial, StageHandler(), std::move(stop));
}

}  // namespace quillmere
