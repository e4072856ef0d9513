#include "QuillmereKit/Generation/GenerationQueue.hpp"

#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

// The way of one render's reports to the executor. A renderer may keep its callbacks longer than it should, longer
// even than the queue lives: once closed, reports go nowhere.
class Reports {
public:
    explicit Reports(SerialExecutor& executor) : executor_(&executor) {}

    void post(std::function<void()> report) {
        const std::lock_guard lock(mutex_);
        if (executor_ != nullptr) executor_->post(std::move(report));
    }

    void close() {
        const std::lock_guard lock(mutex_);
        executor_ = nullptr;
    }

private:
    std::mutex mutex_;
    SerialExecutor* executor_;  // guarded by mutex_
};

template <class Handler, class Value>
void call(const Handler& handler, const Value& value) {
    try {
        handler(value);
    } catch (const std::exception& error) {
        fatalError("an observer of a GenerationQueue let an exception out: " + std::string(error.what()));
    } catch (...) {
        fatalError("an observer of a GenerationQueue let an exception out");
    }
}

}  // namespace

GenerationQueue::GenerationQueue(std::shared_ptr<GenerationService> service, std::shared_ptr<LoopStore> store,
                                 double seconds)
    : service_(std::move(service)), store_(std::move(store)), seconds_(seconds) {
    precondition(service_ != nullptr, "a GenerationQueue needs a service");
    precondition(store_ != nullptr, "a GenerationQueue needs a store");
}

GenerationQueue::~GenerationQueue() {
    precondition(!executor_.isCurrent(), "a GenerationQueue must not be destroyed from one of its handlers");
    precondition(!renders_.isCurrent(), "a GenerationQueue must not be destroyed from its renderer");
    std::map<UUID, ProgressHandler> observers;  // these go on this thread, with what they hold
    std::map<UUID, EventHandler> eventObservers;
    executor_.run([&] {
        isClosed_ = true;
        observers.swap(observers_);
        eventObservers.swap(eventObservers_);
        drainID_.reset();
        if (auto cancelled = std::exchange(current_, std::nullopt)) cancelled->stop.request_stop();
    });
}

void GenerationQueue::request(const LoopIdentity& identity, GenerationPace pace, std::optional<UUID> requestToken) {
    perform([this, identity, pace, requestToken] { accept(identity, pace, requestToken); });
}

bool GenerationQueue::cancelAll(std::optional<UUID> requestToken) {
    precondition(!executor_.isCurrent(), "GenerationQueue::cancelAll must not be called from one of its handlers");
    bool isWindingDown = false;
    executor_.run([&] { isWindingDown = cancel(requestToken); });
    return isWindingDown;
}

UUID GenerationQueue::observe(ProgressHandler handler) {
    precondition(handler != nullptr, "an observer needs a handler");
    const auto id = UUID::random();
    perform([this, id, handler = std::move(handler)] {
        if (!isClosed_) observers_.emplace(id, handler);
    });
    return id;
}

UUID GenerationQueue::observeEvents(EventHandler handler) {
    precondition(handler != nullptr, "an observer needs a handler");
    const auto id = UUID::random();
    perform([this, id, handler = std::move(handler)] {
        if (!isClosed_) eventObservers_.emplace(id, handler);
    });
    return id;
}

void GenerationQueue::stopObserving(const UUID& observer) {
    perform([this, observer] {
        observers_.erase(observer);
        eventObservers_.erase(observer);
    });
}

bool GenerationQueue::isBusy() const {
    bool answer = false;
    ask([&] { answer = current_.has_value(); });
    return answer;
}

bool GenerationQueue::isDraining() const {
    bool answer = false;
    ask([&] { answer = drainID_.has_value(); });
    return answer;
}

std::optional<LoopIdentity> GenerationQueue::pending() const {
    std::optional<LoopIdentity> answer;
    ask([&] {
        if (current_) answer = current_->identity;
    });
    return answer;
}

void GenerationQueue::perform(std::function<void()> operation) {
    if (executor_.isCurrent()) {
        executor_.post(std::move(operation));
    } else {
        executor_.run(operation);
    }
}

void GenerationQueue::ask(const std::function<void()>& question) const {
    if (executor_.isCurrent()) {
        question();
    } else {
        executor_.run(question);
    }
}

void GenerationQueue::accept(const LoopIdentity& identity, GenerationPace pace, std::optional<UUID> requestToken) {
    if (isClosed_) return;  // asked for by a handler, after which the queue was destroyed
    if (auto piece = store_->artifact(identity)) {
        emit(Progress::Finished{std::move(*piece)}, requestToken);
        return;
    }

    const Progress accepted =
        Progress::Rendering{.identity = identity, .seconds = 0, .audio = std::nullopt, .loudness = std::nullopt};
    if (current_ && current_->identity == identity) {
        if (!requestToken) return;
        current_->requestToken = requestToken;
        emit(accepted, requestToken);
        return;
    }

    auto superseded = std::exchange(current_, Current{.identity = identity,
                                                      .pace = pace,
                                                      .attempt = UUID::random(),
                                                      .requestToken = requestToken,
                                                      .stop = std::stop_source()});
    drainingRequestToken_.reset();
    drainID_.reset();
    if (superseded) superseded->stop.request_stop();
    emit(accepted, requestToken);
    if (!isRendering_) startRender();
}

bool GenerationQueue::cancel(const std::optional<UUID>& requestToken) {
    if (requestToken && !(current_ && current_->requestToken == requestToken)) {
        return !current_ && drainID_ && drainingRequestToken_ == requestToken;
    }
    if (!current_ && !drainID_) {
        emit(Progress::Idle{}, std::nullopt);
        return false;
    }

    drainID_ = UUID::random();
    if (auto cancelled = std::exchange(current_, std::nullopt)) {
        drainingRequestToken_ = cancelled->requestToken;
        cancelled->stop.request_stop();
    }
    emit(Progress::Stopping{}, drainingRequestToken_);
    // A current request without a render is left by a renderer that gave up by itself: nothing else would end the
    // drain.
    if (!isRendering_) executor_.post([this, drainID = *drainID_] { finishedDraining(drainID); });
    return true;
}

void GenerationQueue::startRender() {
    isRendering_ = true;
    renders_.post([this, identity = current_->identity, pace = current_->pace, attempt = current_->attempt,
                   stop = current_->stop.get_token()] { render(identity, pace, attempt, stop); });
}

void GenerationQueue::render(const LoopIdentity& identity, GenerationPace pace, const UUID& attempt,
                             const std::stop_token& stop) {
    const auto reports = std::make_shared<Reports>(executor_);
    const GenerationService::AudioHandler onAudio = [this, reports, attempt](const GenerationAudio& audio) {
        reports->post([this, attempt, audio] { reportAudio(attempt, audio); });
    };
    const GenerationService::StageHandler onStage = [this, reports, attempt](const GenerationStage& stage) {
        reports->post([this, attempt, stage] { reportStage(attempt, stage); });
    };

    // What tells of the end has its memory before the render: afterwards there may be a finished piece to lose.
    const auto outcome = std::make_shared<Outcome>(Cancelled{});
    std::function<void()> tellEnd = [this, attempt, outcome] { endRender(attempt, *outcome); };
    try {
        if (!stop.stop_requested()) *outcome = service_->render(identity, seconds_, pace, onAudio, onStage, stop);
    } catch (const CancellationError&) {
        *outcome = Cancelled{};
    } catch (const std::exception& error) {
        *outcome = Failure{error.what()};
    } catch (...) {
        *outcome = Failure{"The renderer failed without giving a reason."};
    }
    reports->close();
    executor_.post(std::move(tellEnd));
}

void GenerationQueue::reportAudio(const UUID& attempt, const GenerationAudio& audio) {
    if (!current_ || current_->attempt != attempt) return;
    emit(
        Progress::Rendering{
            .identity = current_->identity, .seconds = audio.seconds, .audio = audio.url, .loudness = audio.loudness},
        current_->requestToken);
}

void GenerationQueue::reportStage(const UUID& attempt, const GenerationStage& stage) {
    if (!current_ || current_->attempt != attempt) return;
    emit(Progress::Stage{current_->identity, stage}, current_->requestToken);
}

// One operation from the question whether the render is still wanted to the last thing that follows from it: a cancel
// comes before all of it or after.
void GenerationQueue::endRender(const UUID& attempt, const Outcome& outcome) {
    isRendering_ = false;
    const bool isWanted = current_ && current_->attempt == attempt;
    if (const auto* piece = std::get_if<LoopArtifact>(&outcome)) {
        if (!isWanted) {
            store_->discardUnstored(piece->url);
        } else {
            finish(attempt, filed(*piece));
        }
    } else if (const auto* failure = std::get_if<Failure>(&outcome); failure != nullptr && isWanted) {
        finish(attempt, Progress::Failed{current_->identity, failure->message});
    }

    if (current_ && current_->attempt != attempt) {
        startRender();
    } else if (drainID_) {
        finishedDraining(*drainID_);
    }
}

// Files the wanted piece; what is then to be told.
GenerationQueue::Progress GenerationQueue::filed(const LoopArtifact& piece) {
    try {
        Progress finished = Progress::Finished{piece};  // first, so that nothing that needs memory follows the filing
        store_->add(piece);
        return finished;
    } catch (const std::exception& error) {
        return Progress::Failed{current_->identity, "The piece could not be filed in the library (" +
                                                        std::string(error.what()) + "). Its audio stays at " +
                                                        piece.url.path().string() + "."};
    }
}

void GenerationQueue::finish(const UUID& attempt, Progress progress) {
    if (!current_ || current_->attempt != attempt) return;
    const auto requestToken = std::exchange(current_, std::nullopt)->requestToken;
    emit(std::move(progress), requestToken);
}

void GenerationQueue::finishedDraining(const UUID& drainID) {
    if (drainID_ != drainID || current_) return;
    drainID_.reset();
    drainingRequestToken_.reset();
    emit(Progress::Idle{}, std::nullopt);
}

void GenerationQueue::emit(Progress progress, std::optional<UUID> requestToken) {
    const Event event{.progress = std::move(progress), .requestToken = requestToken, .sequence = sequence_.next()};
    for (const auto& [id, handler] : observers_) call(handler, event.progress);
    for (const auto& [id, handler] : eventObservers_) call(handler, event);
}

}  // namespace quillmere
