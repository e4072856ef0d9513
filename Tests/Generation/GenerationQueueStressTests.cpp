#include "QuillmereKit/Generation/GenerationQueue.hpp"

#include "Tests/Generation/EventLog.hpp"
#include "Tests/Generation/Samples.hpp"
#include "Tests/Generation/ScriptedRenderer.hpp"
#include "Tests/Support/FastFolder.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <latch>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

namespace quillmere {
namespace {

using test::EventLog;
using test::ScriptedRenderer;
using Event = GenerationQueue::Event;
using Progress = GenerationQueue::Progress;
using Render = ScriptedRenderer::Render;

constexpr int interleavings = 10'000;
constexpr int interleavingsPerStore = 50;
constexpr int freeRuns = 100;

bool removeFile(const FileURL& url) {
    std::error_code ignored;
    return std::filesystem::remove(url.path(), ignored);
}

FileURL fileIn(const LoopStore& store, const LoopIdentity& identity) {
    return FileURL::fromPath(store.directory() / (identity.filename() + ".wav"));
}

LoopArtifact pieceIn(const LoopStore& store, const LoopIdentity& identity) {
    return test::samplePiece(identity, fileIn(store, identity), 120);
}

LoopArtifact writePiece(const LoopStore& store, const LoopIdentity& identity) {
    std::ofstream(fileIn(store, identity).path()) << "audio";
    return pieceIn(store, identity);
}

Progress accepted(const LoopIdentity& identity) {
    return Progress::Rendering{.identity = identity, .seconds = 0, .audio = std::nullopt, .loudness = std::nullopt};
}

bool isAcceptance(const Progress& progress) {
    const auto* rendering = std::get_if<Progress::Rendering>(&progress.value());
    return rendering != nullptr && rendering->seconds == 0;
}

// What an observer is told, and what the queue answers it at that moment.
struct Told {
    Event event;
    bool isBusy = false;
    bool isDraining = false;
    std::optional<LoopIdentity> pending;
    friend bool operator==(const Told&, const Told&) = default;
};

// A request that a handler makes on the next event, unless that accepts a request: whether the accepted render begins
// before the handler's request stops it is a matter of time.
struct Reaction {
    LoopIdentity identity;
    std::optional<UUID> requestToken;
};

// The rules of the queue as a plain state machine on one thread: tasks that wait for the task before them, waiters for
// the end of a drain, and a list of what is told.
class ReferenceQueue {
public:
    explicit ReferenceQueue(const LoopStore& store) : store_(store) {}

    void request(const LoopIdentity& identity, std::optional<UUID> requestToken) {
        perform([=, this] { accept(identity, requestToken); });
    }

    bool cancelAll(std::optional<UUID> requestToken) {
        bool answer = false;
        perform([&, this] { answer = cancel(requestToken); });
        return answer;
    }

    void reportStage(const GenerationStage& stage) {
        perform([&, this] {
            const auto& task = tasks_[*rendering()];
            if (isCurrent(task)) emit(Progress::Stage{task.identity, stage}, current_->requestToken);
        });
    }

    void reportAudio(const GenerationAudio& audio) {
        perform([&, this] {
            const auto& task = tasks_[*rendering()];
            if (!isCurrent(task)) return;
            emit(Progress::Rendering{task.identity, audio.seconds, audio.url, audio.loudness}, current_->requestToken);
        });
    }

    // The render in progress ends: with a piece, with a failure of this text, or given up.
    void succeed() {
        endRender([this](const Task& task) {
            if (task.isCancelled) return;
            library_.insert(task.identity.fingerprint());
            finish(task, Progress::Finished{pieceIn(store_, task.identity)});
        });
    }
    void fail(const std::string& text) {
        endRender([&, this](const Task& task) {
            if (!task.isCancelled) finish(task, Progress::Failed{task.identity, text});
        });
    }
    // Nothing tells the end of a render that gives up by itself, so whether a later cancel finds it ended or about to
    // end is a matter of time, and so is whether a handler's request on that cancel comes before `idle` or after.
    void giveUp() {
        reaction_.reset();
        endRender([](const Task&) {});
    }

    [[nodiscard]] bool hasGivenUp() const { return current_ && tasks_[current_->attempt].state == Task::State::ended; }

    void reactToNextEvent(Reaction reaction) { reaction_ = std::move(reaction); }

    [[nodiscard]] bool isReactionArmed() const { return reaction_.has_value(); }
    [[nodiscard]] const std::vector<Told>& told() const { return told_; }
    [[nodiscard]] const std::set<std::string>& library() const { return library_; }
    [[nodiscard]] bool isRendering() const { return rendering().has_value(); }
    [[nodiscard]] std::size_t begun() const { return begun_; }
    [[nodiscard]] bool isBusy() const { return current_.has_value(); }
    [[nodiscard]] bool isDraining() const { return draining_.has_value(); }

private:
    struct Task {
        enum class State { waiting, rendering, ended };
        LoopIdentity identity;
        std::size_t attempt;
        std::optional<std::size_t> previous;
        State state = State::waiting;
        bool isCancelled = false;
    };
    struct Current {
        LoopIdentity identity;
        std::size_t attempt;  // also the index of the task
        std::optional<UUID> requestToken;
    };
    struct Waiter {
        std::size_t task;
        int drainID;
    };

    [[nodiscard]] bool isCurrent(const Task& task) const { return current_ && current_->attempt == task.attempt; }

    [[nodiscard]] std::optional<std::size_t> rendering() const {
        for (const auto& task : tasks_) {
            if (task.state == Task::State::rendering) return task.attempt;
        }
        return std::nullopt;
    }

    void accept(const LoopIdentity& identity, std::optional<UUID> requestToken) {
        if (library_.contains(identity.fingerprint())) {
            emit(Progress::Finished{pieceIn(store_, identity)}, requestToken);
            return;
        }
        if (current_ && current_->identity == identity) {
            if (!requestToken) return;
            current_->requestToken = requestToken;
            emit(accepted(identity), requestToken);
            return;
        }
        const auto previous = current_ ? std::optional(current_->attempt) : draining_;
        if (current_) tasks_[current_->attempt].isCancelled = true;
        draining_.reset();
        drainingRequestToken_.reset();
        drainID_.reset();
        tasks_.push_back({identity, tasks_.size(), previous});
        current_ = Current{identity, tasks_.back().attempt, requestToken};
        emit(accepted(identity), requestToken);
    }

    bool cancel(std::optional<UUID> requestToken) {
        if (requestToken) {
            if (!current_ || current_->requestToken != requestToken) {
                if (current_ || !draining_) return false;
                return drainingRequestToken_ == requestToken;
            }
        }
        const auto token = current_ && current_->requestToken ? current_->requestToken : drainingRequestToken_;
        if (current_) {
            tasks_[current_->attempt].isCancelled = true;
            draining_ = current_->attempt;
            drainingRequestToken_ = token;
        }
        current_.reset();
        if (!draining_) {
            emit(Progress::Idle{}, std::nullopt);
            return false;
        }
        drainID_ = nextDrainID_++;
        emit(Progress::Stopping{}, token);
        waiters_.push_back({*draining_, *drainID_});
        return true;
    }

    template <class Then>
    void endRender(Then then) {
        perform([&, this] {
            auto& task = tasks_[*rendering()];
            then(task);
            task.state = Task::State::ended;
        });
    }

    void finish(const Task& task, Progress progress) {
        if (!isCurrent(task)) return;
        const auto requestToken = current_->requestToken;
        current_.reset();
        emit(std::move(progress), requestToken);
    }

    void emit(Progress progress, std::optional<UUID> requestToken) {
        told_.push_back({{std::move(progress), requestToken, ++sequence_},
                         current_.has_value(),
                         draining_.has_value(),
                         current_ ? std::optional(current_->identity) : std::nullopt});
        if (!reaction_ || isAcceptance(told_.back().event.progress)) return;
        asked_.push_back(*reaction_);
        reaction_.reset();
    }

    // One operation and all that follows from it.
    template <class Operation>
    void perform(Operation operation) {
        operation();
        for (bool goesOn = true; goesOn;) {
            goesOn = false;
            for (auto& task : tasks_) {
                if (task.state != Task::State::waiting) continue;
                if (task.previous && tasks_[*task.previous].state != Task::State::ended) continue;
                task.state = task.isCancelled ? Task::State::ended : Task::State::rendering;
                if (!task.isCancelled) ++begun_;
                goesOn = true;
            }
            if (!asked_.empty()) {
                const auto asked = asked_.front();
                asked_.pop_front();
                accept(asked.identity, asked.requestToken);
                goesOn = true;
                continue;
            }
            for (std::size_t i = 0; i < waiters_.size(); ++i) {
                const auto waiter = waiters_[i];
                if (tasks_[waiter.task].state != Task::State::ended) continue;
                waiters_.erase(waiters_.begin() + static_cast<std::ptrdiff_t>(i));
                if (drainID_ == waiter.drainID && !current_) {
                    draining_.reset();
                    drainingRequestToken_.reset();
                    drainID_.reset();
                    emit(Progress::Idle{}, std::nullopt);
                }
                goesOn = true;
                break;
            }
        }
    }

    const LoopStore& store_;
    std::deque<Task> tasks_;
    std::optional<Current> current_;
    std::optional<std::size_t> draining_;
    std::optional<UUID> drainingRequestToken_;
    std::optional<int> drainID_;
    int nextDrainID_ = 0;
    std::vector<Waiter> waiters_;
    std::deque<Reaction> asked_;
    std::optional<Reaction> reaction_;
    std::set<std::string> library_;
    std::vector<Told> told_;
    std::uint64_t sequence_ = 0;
    std::size_t begun_ = 0;
};

// A log that makes the armed reaction on the next event, from inside the handler.
class ReactingLog {
public:
    void handle(GenerationQueue& queue, const Event& event) {
        std::optional<Reaction> reaction;
        {
            const std::lock_guard lock(mutex_);
            if (!isAcceptance(event.progress)) reaction.swap(reaction_);
        }
        if (reaction) queue.request(reaction->identity, GenerationPace::fast, reaction->requestToken);
        const Told told{event, queue.isBusy(), queue.isDraining(), queue.pending()};
        const std::lock_guard lock(mutex_);
        told_.push_back(told);
        changed_.notify_all();
    }
    void react(std::optional<Reaction> reaction) {
        const std::lock_guard lock(mutex_);
        reaction_ = std::move(reaction);
    }
    // Whether exactly this was told, of which the first `known` are known already; waits until as much was told.
    bool is(const std::vector<Told>& expected, std::size_t known) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return told_.size() >= expected.size(); });
        return told_.size() == expected.size() &&
               std::equal(told_.begin() + static_cast<std::ptrdiff_t>(known), told_.end(),
                          expected.begin() + static_cast<std::ptrdiff_t>(known));
    }
    std::vector<Told> all() {
        const std::lock_guard lock(mutex_);
        return told_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Told> told_;
    std::optional<Reaction> reaction_;
};

std::string describe(const Told& told) {
    static constexpr const char* names[] = {"stage", "rendering", "finished", "failed", "idle", "stopping"};
    return std::to_string(told.event.sequence) + " " + names[told.event.progress.value().index()] +
           (told.isBusy ? " busy" : "") + (told.isDraining ? " draining" : "");
}

// One run: random steps, made on the queue and on the reference, and compared after each.
class Interleaving {
public:
    Interleaving(std::uint32_t seed, std::shared_ptr<LoopStore> store)
        : random_(seed), store_(std::move(store)), reference_(*store_), queue_(renderer_, store_, 120) {
        for (int i = 0; i < 4; ++i) identities_.push_back(test::sampleIdentity(std::int64_t{seed} * 10 + i));
        queue_.observeEvents([this](const Event& event) { log_.handle(queue_, event); });
        queue_.observe([this](const Progress&) { ++progressCalls_; });
    }
    ~Interleaving() { renderer_->release(); }

    void run() {
        for (auto steps = 4 + below(8); steps > 0 && !testing::Test::HasFailure(); --steps) {
            step();
            compare();
        }
        if (testing::Test::HasFailure()) return;
        const bool isWindingDown = queue_.cancelAll();
        EXPECT_EQ(isWindingDown, reference_.cancelAll(std::nullopt));
        compare();
        if (!testing::Test::HasFailure() && reference_.isRendering()) end();
        if (!testing::Test::HasFailure()) compare();
        if (!testing::Test::HasFailure()) checkLibrary();
    }

private:
    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
    const LoopIdentity& identity() { return identities_[below(4)]; }
    std::optional<UUID> requestToken() {
        const auto number = below(4);
        if (number == 0) return std::nullopt;
        UUID token;
        token.bytes.fill(static_cast<std::uint8_t>(number));
        return token;
    }

    void step() {
        switch (below(12)) {
            case 0:
            case 1:
            case 2:
            case 3: {
                const auto& asked = identity();
                const auto token = requestToken();
                queue_.request(asked, GenerationPace::fast, token);
                reference_.request(asked, token);
                return;
            }
            case 4:
            case 5: {
                const auto token = requestToken();
                const bool isWindingDown = queue_.cancelAll(token);
                EXPECT_EQ(isWindingDown, reference_.cancelAll(token));
                return;
            }
            case 6: {
                if (reference_.hasGivenUp()) return;  // see there
                const Reaction reaction{identity(), requestToken()};
                log_.react(reaction);
                reference_.reactToNextEvent(reaction);
                return;
            }
            case 7: {
                const auto other =
                    below(2) == 0 ? queue_.observe([](const Progress&) {}) : queue_.observeEvents([](const Event&) {});
                if (below(2) == 0) queue_.stopObserving(other);
                EXPECT_EQ(queue_.isBusy(), reference_.isBusy());
                EXPECT_EQ(queue_.isDraining(), reference_.isDraining());
                return;
            }
            default: break;
        }
        if (!reference_.isRendering()) return;
        const auto render = renderer_->awaitRender(reference_.begun());
        switch (below(4)) {
            case 0: {
                const GenerationStage stage = GenerationStage::Sampling{1 + below(8), 8};
                render->onStage(stage);
                reference_.reportStage(stage);
                (void)queue_.isBusy();  // behind the report
                return;
            }
            case 1: {
                const GenerationAudio audio{fileIn(*store_, render->identity), 1.0 + below(100), std::nullopt};
                render->onAudio(audio);
                reference_.reportAudio(audio);
                (void)queue_.isBusy();
                return;
            }
            default: end();
        }
    }

    void end() {
        const auto render = renderer_->awaitRender(reference_.begun());
        switch (below(5)) {
            case 0:
                renderer_->end([](const Render&) -> LoopArtifact { throw std::runtime_error("no music today"); });
                reference_.fail("no music today");
                break;
            case 1:
                log_.react(std::nullopt);
                renderer_->end([](const Render&) -> LoopArtifact { throw CancellationError(); });
                reference_.giveUp();
                break;
            default: {
                // A report just before the end, unless a handler would answer it: that would be a race with the end.
                const bool reports = !reference_.isReactionArmed();
                renderer_->end([this, reports](const Render& ended) {
                    if (reports) ended.onStage(GenerationStage::Processing{});
                    return writePiece(*store_, ended.identity);
                });
                if (reports) reference_.reportStage(GenerationStage::Processing{});
                reference_.succeed();
            }
        }
    }

    void compare() {
        const auto& expected = reference_.told();
        if (log_.is(expected, compared_)) {
            compared_ = expected.size();
            // A render that was due has begun: a cancel before that would be a matter of time, too.
            if (reference_.isRendering()) (void)renderer_->awaitRender(reference_.begun());
            return;
        }
        std::string text = "told:";
        for (const auto& one : log_.all()) text += "\n  " + describe(one);
        text += "\nshould be:";
        for (const auto& one : expected) text += "\n  " + describe(one);
        ADD_FAILURE() << text;
    }

    // Behind the last operation: what was finished is there, of what was cancelled nothing is.
    void checkLibrary() {
        (void)queue_.isBusy();
        compare();
        EXPECT_FALSE(renderer_->hasOverlapped());
        EXPECT_EQ(renderer_->begun(), reference_.begun());
        EXPECT_EQ(progressCalls_, reference_.told().size());
        for (const auto& identity : identities_) {
            const bool isStored = reference_.library().contains(identity.fingerprint());
            EXPECT_EQ(store_->contains(identity), isStored);
            EXPECT_EQ(std::filesystem::exists(fileIn(*store_, identity).path()), isStored);
        }
    }

    std::mt19937 random_;
    std::vector<LoopIdentity> identities_;
    std::shared_ptr<LoopStore> store_;
    std::shared_ptr<ScriptedRenderer> renderer_ = std::make_shared<ScriptedRenderer>();
    ReferenceQueue reference_;
    ReactingLog log_;
    std::size_t compared_ = 0;
    std::size_t progressCalls_ = 0;  // touched on the queue's thread, read when it has nothing to do
    GenerationQueue queue_;
};

TEST(GenerationQueueStressTests, RandomInterleavingsFollowTheRules) {
    std::shared_ptr<LoopStore> store;
    std::optional<test::TemporaryFolder> folder;
    for (int run = 0; run < interleavings && !HasFailure(); ++run) {
        if (run % interleavingsPerStore == 0) {
            store.reset();
            store = std::make_shared<LoopStore>(folder.emplace(test::fastParent()).path(), ResourceBundle::main(),
                                                removeFile);
        }
        SCOPED_TRACE("seed " + std::to_string(run));
        Interleaving(static_cast<std::uint32_t>(run), store).run();
    }
}

// A renderer that goes its own way: some renders finish, some fail, some notice the stop and some do not.
class CapriciousRenderer : public GenerationService {
public:
    CapriciousRenderer(std::uint32_t seed, std::shared_ptr<LoopStore> store)
        : random_(seed), store_(std::move(store)) {}

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        throw Error("only the fullest form is asked for");
    }
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace, const AudioHandler& onAudio,
                        const StageHandler& onStage, std::stop_token stop) override {
        if (isRendering_.exchange(true)) hasOverlapped = true;
        const auto leave = [this] { isRendering_ = false; };
        const bool noticesStop = random_() % 2 == 0;
        const auto steps = static_cast<int>(1 + random_() % 8);
        for (int step = 1; step <= steps; ++step) {
            onStage(GenerationStage::Sampling{step, steps});
            std::jthread([&] {  // reports may come from any thread
                onAudio(
                    {.url = fileIn(*store_, identity), .seconds = seconds * step / steps, .loudness = std::nullopt});
            })
                .join();
            if (noticesStop && stop.stop_requested()) {
                leave();
                throw CancellationError();
            }
        }
        const bool fails = random_() % 4 == 0;
        leave();
        if (fails) throw std::runtime_error("no music today");
        return writePiece(*store_, identity);
    }

    std::atomic<bool> hasOverlapped = false;

private:
    std::atomic<bool> isRendering_ = false;
    std::mt19937 random_;  // renders come one at a time
    std::shared_ptr<LoopStore> store_;
};

// Follows a log from event to event and says what cannot be.
class LogReader {
public:
    void read(const Event& event) {
        EXPECT_EQ(event.sequence, ++sequence_);
        std::visit([&](const auto& progress) { check(progress); }, event.progress.value());
    }

    [[nodiscard]] const std::set<std::string>& finished() const { return finished_; }

private:
    void check(const Progress::Rendering& told) {
        if (told.seconds == 0) {
            EXPECT_FALSE(finished_.contains(told.identity.fingerprint())) << "what is stored is not rendered";
            current_ = told.identity;
            isDraining_ = false;
        } else {
            EXPECT_EQ(told.identity, current_) << "a report of a render that is not the current one";
        }
    }
    void check(const Progress::Stage& told) { EXPECT_EQ(told.identity, current_); }
    void check(const Progress::Failed& told) {
        EXPECT_EQ(told.identity, current_);
        current_.reset();
    }
    void check(const Progress::Finished& told) {
        const bool isStored = finished_.contains(told.piece.id());
        EXPECT_TRUE(isStored || told.piece.identity == current_);
        if (!isStored) current_.reset();
        finished_.insert(told.piece.id());
    }
    void check(Progress::Stopping) {
        EXPECT_TRUE(current_ || isDraining_);
        current_.reset();
        isDraining_ = true;
    }
    void check(Progress::Idle) {
        EXPECT_FALSE(current_);
        isDraining_ = false;
    }

    std::uint64_t sequence_ = 0;
    std::optional<LoopIdentity> current_;
    bool isDraining_ = false;
    std::set<std::string> finished_;
};

TEST(GenerationQueueStressTests, FreelyRunningCallersNeverBreakTheRules) {
    for (int run = 0; run < freeRuns && !HasFailure(); ++run) {
        SCOPED_TRACE("seed " + std::to_string(run));
        const test::TemporaryFolder folder(test::fastParent());
        const auto store = std::make_shared<LoopStore>(folder.path(), ResourceBundle::main(), removeFile);
        const auto renderer = std::make_shared<CapriciousRenderer>(static_cast<std::uint32_t>(run), store);
        EventLog log;
        {
            std::mt19937 handlersRandom(
                static_cast<std::uint32_t>(run));  // outlives the queue, which calls the handler
            GenerationQueue queue(renderer, store, 120);
            queue.observeEvents([&](const Event& event) {
                log.add(event);
                if (handlersRandom() % 8 == 0) {
                    queue.request(test::sampleIdentity(handlersRandom() % 6), GenerationPace::fast);
                }
            });
            std::latch start(3);
            std::vector<std::jthread> callers;
            for (std::uint32_t caller = 0; caller < 3; ++caller) {
                callers.emplace_back([&, caller] {
                    std::mt19937 random(static_cast<std::uint32_t>(run) * 3 + caller);
                    start.arrive_and_wait();
                    for (int i = 0; i < 25; ++i) {
                        UUID token;
                        token.bytes.fill(static_cast<std::uint8_t>(random() % 3));
                        const auto optionalToken = random() % 2 == 0 ? std::nullopt : std::optional(token);
                        switch (random() % 8) {
                            case 0: (void)queue.cancelAll(optionalToken); break;
                            case 1: queue.stopObserving(queue.observe([](const Progress&) {})); break;
                            case 2: (void)queue.pending(); break;
                            default:
                                queue.request(test::sampleIdentity(random() % 6), GenerationPace::fast, optionalToken);
                        }
                    }
                });
            }
            callers.clear();
            // The queue goes with a render in progress, more often than not.
        }

        const auto events = log.events();
        LogReader reader;
        for (const auto& event : events) reader.read(event);
        EXPECT_FALSE(renderer->hasOverlapped);
        EXPECT_GT(events.size(), 0u);
        for (std::int64_t seed = 0; seed < 6; ++seed) {
            const auto identity = test::sampleIdentity(seed);
            const bool isStored = store->contains(identity);
            EXPECT_EQ(reader.finished().contains(identity.fingerprint()), isStored);
            EXPECT_EQ(std::filesystem::exists(fileIn(*store, identity).path()), isStored);
        }
    }
}

}  // namespace
}  // namespace quillmere
