#include "QuillmereKit/Generation/GenerationQueue.hpp"

#include "QuillmereKit/Generation/GenerationBackends.hpp"
#include "Tests/Generation/EventLog.hpp"
#include "Tests/Generation/Samples.hpp"
#include "Tests/Generation/ScriptedRenderer.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <latch>
#include <stdexcept>
#include <thread>

namespace quillmere {
namespace {

using test::EventLog;
using test::sampleIdentity;
using test::sampleLoudness;
using test::samplePiece;
using test::ScriptedRenderer;
using Event = GenerationQueue::Event;
using Progress = GenerationQueue::Progress;
using Render = ScriptedRenderer::Render;

Progress rendering(const LoopIdentity& identity) {
    return Progress::Rendering{.identity = identity, .seconds = 0, .audio = std::nullopt, .loudness = std::nullopt};
}

bool removeFile(const FileURL& url) {
    std::error_code ignored;
    return std::filesystem::remove(url.path(), ignored);
}

struct GenerationQueueTests : testing::Test {
    ~GenerationQueueTests() override { renderer->release(); }

    test::TemporaryFolder folder;
    const LoopIdentity a = sampleIdentity(1);
    const LoopIdentity b = sampleIdentity(2);
    const LoopIdentity c = sampleIdentity(3);
    const UUID one = UUID::random();
    const UUID two = UUID::random();
    const std::shared_ptr<LoopStore> store =
        std::make_shared<LoopStore>(folder.path() / "Loops", ResourceBundle::main(), removeFile);
    const std::shared_ptr<ScriptedRenderer> renderer = std::make_shared<ScriptedRenderer>();
    EventLog log;
    std::optional<GenerationQueue> queue = std::optional<GenerationQueue>(std::in_place, renderer, store, 120.0);
    const UUID observer = queue->observeEvents([this](const Event& event) { log.add(event); });

    FileURL file(const LoopIdentity& identity) const {
        return FileURL::fromPath(store->directory() / (identity.filename() + ".wav"));
    }
    LoopArtifact piece(const LoopIdentity& identity) const { return samplePiece(identity, file(identity), 119.5); }

    // A renderer's success: the file is there when the piece is returned.
    LoopArtifact write(const LoopIdentity& identity) const {
        std::ofstream(file(identity).path()) << "audio";
        return piece(identity);
    }
    void succeed() {
        renderer->end([this](const Render& render) { return write(render.identity); });
    }
    void giveUp() {
        renderer->end([](const Render&) -> LoopArtifact { throw CancellationError(); });
    }
    bool hasFile(const LoopIdentity& identity) const { return std::filesystem::exists(file(identity).path()); }

    // All operations called so far, and what handlers asked for in the first of them, have run after this.
    void settle() const {
        (void)queue->isBusy();
        (void)queue->isBusy();
    }
};

// MARK: Requests

TEST_F(GenerationQueueTests, ARequestIsRenderedStoredAndReported) {
    queue->request(a, GenerationPace::gentle, one);
    const auto render = renderer->awaitRender(1);
    render->onStage(GenerationStage::Preparing{});
    render->onAudio({.url = file(a), .seconds = 5, .loudness = sampleLoudness(-20)});
    succeed();

    EXPECT_EQ(log.await(4), (std::vector<Event>{
                                {rendering(a), one, 1},
                                {Progress::Stage{a, GenerationStage::Preparing{}}, one, 2},
                                {Progress::Rendering{a, 5, file(a), sampleLoudness(-20)}, one, 3},
                                {Progress::Finished{piece(a)}, one, 4},
                            }));
    EXPECT_EQ(render->identity, a);
    EXPECT_EQ(render->seconds, 120);
    EXPECT_EQ(render->pace, GenerationPace::gentle);
    EXPECT_FALSE(render->stop.stop_requested());
    EXPECT_EQ(store->artifact(a), piece(a));
    EXPECT_TRUE(hasFile(a));
}

TEST_F(GenerationQueueTests, ThePieceIsInTheLibraryWhenFinishedIsTold) {
    bool isThere = false;
    queue->observe([&](const Progress& progress) {
        if (std::holds_alternative<Progress::Finished>(progress.value())) isThere = store->contains(a);
    });

    queue->request(a, GenerationPace::fast);
    succeed();
    (void)log.await(2);
    settle();

    EXPECT_TRUE(isThere);
}

TEST_F(GenerationQueueTests, IsBusyFromTheRequestToItsEnd) {
    EXPECT_FALSE(queue->isBusy());
    EXPECT_EQ(queue->pending(), std::nullopt);

    queue->request(a, GenerationPace::fast);

    EXPECT_TRUE(queue->isBusy());
    EXPECT_FALSE(queue->isDraining());
    EXPECT_EQ(queue->pending(), a);

    succeed();
    (void)log.await(2);

    EXPECT_FALSE(queue->isBusy());
    EXPECT_FALSE(queue->isDraining());
    EXPECT_EQ(queue->pending(), std::nullopt);
}

TEST_F(GenerationQueueTests, AStoredPieceIsFinishedAtOnceAndDisturbsNothing) {
    store->add(write(a));
    queue->request(b, GenerationPace::fast, one);
    const auto render = renderer->awaitRender(1);

    queue->request(a, GenerationPace::fast, two);

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(b), one, 1}, {Progress::Finished{piece(a)}, two, 2}}));
    EXPECT_EQ(queue->pending(), b);
    EXPECT_FALSE(render->stop.stop_requested());

    succeed();

    EXPECT_EQ(log.await(3).back(), (Event{Progress::Finished{piece(b)}, one, 3}));
    EXPECT_EQ(renderer->begun(), 1u);
}

TEST_F(GenerationQueueTests, RepeatingTheCurrentRequestWithoutATokenTellsNothing) {
    queue->request(a, GenerationPace::fast, one);

    queue->request(a, GenerationPace::gentle);

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), one, 1}}));
    succeed();
    EXPECT_EQ(log.await(2).back(), (Event{Progress::Finished{piece(a)}, one, 2}));
    EXPECT_EQ(renderer->begun(), 1u);
}

TEST_F(GenerationQueueTests, RepeatingTheCurrentRequestWithATokenTakesOverItsEvents) {
    queue->request(a, GenerationPace::fast, one);
    const auto render = renderer->awaitRender(1);

    queue->request(a, GenerationPace::fast, two);
    render->onStage(GenerationStage::Encoding{});
    succeed();

    EXPECT_EQ(log.await(4), (std::vector<Event>{
                                {rendering(a), one, 1},
                                {rendering(a), two, 2},
                                {Progress::Stage{a, GenerationStage::Encoding{}}, two, 3},
                                {Progress::Finished{piece(a)}, two, 4},
                            }));
    EXPECT_FALSE(render->stop.stop_requested());
    EXPECT_EQ(renderer->begun(), 1u);
}

TEST_F(GenerationQueueTests, AnotherRequestReplacesTheRenderAndStartsWhenItHasEnded) {
    queue->request(a, GenerationPace::fast, one);
    const auto old = renderer->awaitRender(1);

    queue->request(b, GenerationPace::fast, two);

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), one, 1}, {rendering(b), two, 2}}));
    EXPECT_TRUE(old->stop.stop_requested());
    EXPECT_EQ(queue->pending(), b);
    EXPECT_EQ(renderer->begun(), 1u);

    old->onStage(GenerationStage::Decoding{});  // late, and told to nobody
    succeed();                                  // the old render finishes all the same
    const auto next = renderer->awaitRender(2);

    EXPECT_EQ(next->identity, b);
    EXPECT_FALSE(hasFile(a)) << "the old render's clean-up comes before the next render";
    EXPECT_FALSE(store->contains(a));
    succeed();
    EXPECT_EQ(
        log.await(3),
        (std::vector<Event>{{rendering(a), one, 1}, {rendering(b), two, 2}, {Progress::Finished{piece(b)}, two, 3}}));
    EXPECT_FALSE(renderer->hasOverlapped());
}

TEST_F(GenerationQueueTests, ARequestThatIsReplacedBeforeItsTurnIsNeverRendered) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    queue->request(b, GenerationPace::fast);
    queue->request(c, GenerationPace::background);
    giveUp();

    EXPECT_EQ(renderer->awaitRender(2)->identity, c);
    succeed();
    EXPECT_EQ(log.await(4).back().progress, Progress(Progress::Finished{piece(c)}));
    EXPECT_EQ(renderer->begun(), 2u);
}

TEST_F(GenerationQueueTests, AskingAgainForAReplacedPieceRendersItAnew) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    queue->request(b, GenerationPace::fast);
    queue->request(a, GenerationPace::fast);
    succeed();

    EXPECT_EQ(renderer->awaitRender(2)->identity, a);
    EXPECT_FALSE(hasFile(a)) << "the first render was cancelled, whatever came after";
    succeed();
    EXPECT_EQ(log.await(4).back(), (Event{Progress::Finished{piece(a)}, std::nullopt, 4}));
    EXPECT_TRUE(hasFile(a));
}

// MARK: Cancelling

TEST_F(GenerationQueueTests, CancellingWhileNothingRunsTellsIdle) {
    EXPECT_FALSE(queue->cancelAll());

    EXPECT_EQ(log.events(), (std::vector<Event>{{Progress::Idle{}, std::nullopt, 1}}));
}

TEST_F(GenerationQueueTests, CancellingATokenWhileNothingRunsTellsNothing) {
    EXPECT_FALSE(queue->cancelAll(one));

    EXPECT_TRUE(log.events().empty());
}

TEST_F(GenerationQueueTests, CancellingARenderTellsStoppingAndThenIdle) {
    queue->request(a, GenerationPace::fast, one);
    const auto render = renderer->awaitRender(1);

    EXPECT_TRUE(queue->cancelAll());

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), one, 1}, {Progress::Stopping{}, one, 2}}));
    EXPECT_TRUE(render->stop.stop_requested());
    EXPECT_FALSE(queue->isBusy());
    EXPECT_TRUE(queue->isDraining());
    EXPECT_EQ(queue->pending(), std::nullopt);

    giveUp();

    EXPECT_EQ(log.await(3).back(), (Event{Progress::Idle{}, std::nullopt, 3}));
    EXPECT_FALSE(queue->isDraining());
}

TEST_F(GenerationQueueTests, ACancelledRenderThatSucceedsLeavesNothing) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll(one));
    succeed();

    EXPECT_EQ(log.await(3).back(), (Event{Progress::Idle{}, std::nullopt, 3}));
    EXPECT_FALSE(hasFile(a));
    EXPECT_FALSE(store->contains(a));
}

TEST_F(GenerationQueueTests, ACancelledRenderThatFailsTellsNoFailure) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());
    renderer->end([](const Render&) -> LoopArtifact { throw std::runtime_error("killed"); });

    EXPECT_EQ(log.await(3).back(), (Event{Progress::Idle{}, std::nullopt, 3}));
}

TEST_F(GenerationQueueTests, ReportsOfACancelledRenderAreDropped) {
    queue->request(a, GenerationPace::fast);
    const auto render = renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());

    render->onStage(GenerationStage::Decoding{});
    render->onAudio({.url = file(a), .seconds = 60, .loudness = std::nullopt});
    settle();

    EXPECT_EQ(log.events().size(), 2u);
    giveUp();
    EXPECT_EQ(log.await(3).back().progress, Progress(Progress::Idle{}));
}

TEST_F(GenerationQueueTests, AForeignTokenCancelsNothing) {
    queue->request(a, GenerationPace::fast, one);
    const auto render = renderer->awaitRender(1);

    EXPECT_FALSE(queue->cancelAll(two));

    EXPECT_EQ(log.events().size(), 1u);
    EXPECT_FALSE(render->stop.stop_requested());
    EXPECT_TRUE(queue->isBusy());
}

TEST_F(GenerationQueueTests, ATokenDoesNotCancelARequestWithoutOne) {
    queue->request(a, GenerationPace::fast);

    EXPECT_FALSE(queue->cancelAll(one));

    EXPECT_TRUE(queue->isBusy());
    EXPECT_EQ(log.events().size(), 1u);
}

TEST_F(GenerationQueueTests, WhileDrainingATokenOnlyAsksWhoseDrainItIs) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll(one));

    EXPECT_TRUE(queue->cancelAll(one));
    EXPECT_FALSE(queue->cancelAll(two));

    EXPECT_EQ(log.events().size(), 2u);
    EXPECT_TRUE(queue->isDraining());
}

TEST_F(GenerationQueueTests, WhileDrainingARequestWithoutATokenIsNobodysDrain) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());

    EXPECT_FALSE(queue->cancelAll(one));

    EXPECT_EQ(log.events().size(), 2u);
}

TEST_F(GenerationQueueTests, CancellingAgainWhileDrainingTellsStoppingAgainAndIdleOnce) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());
    EXPECT_TRUE(queue->cancelAll());
    giveUp();
    (void)log.await(4);
    settle();

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), one, 1},
                                                {Progress::Stopping{}, one, 2},
                                                {Progress::Stopping{}, one, 3},
                                                {Progress::Idle{}, std::nullopt, 4}}));
}

TEST_F(GenerationQueueTests, ARequestWhileDrainingWaitsForTheOldRenderAndTellsNoIdle) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());
    queue->request(b, GenerationPace::fast, two);

    EXPECT_FALSE(queue->isDraining());
    EXPECT_EQ(queue->pending(), b);
    EXPECT_FALSE(queue->cancelAll(one)) << "the old request's drain is no longer anybody's";
    EXPECT_EQ(renderer->begun(), 1u);

    succeed();
    EXPECT_EQ(renderer->awaitRender(2)->identity, b);
    EXPECT_FALSE(hasFile(a));
    succeed();

    EXPECT_EQ(log.await(4), (std::vector<Event>{{rendering(a), one, 1},
                                                {Progress::Stopping{}, one, 2},
                                                {rendering(b), two, 3},
                                                {Progress::Finished{piece(b)}, two, 4}}));
    EXPECT_FALSE(renderer->hasOverlapped());
}

TEST_F(GenerationQueueTests, ARequestCancelledBeforeItsTurnIsNeverRendered) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    queue->request(b, GenerationPace::fast, two);
    EXPECT_TRUE(queue->cancelAll(two));
    giveUp();

    EXPECT_EQ(log.await(4), (std::vector<Event>{{rendering(a), one, 1},
                                                {rendering(b), two, 2},
                                                {Progress::Stopping{}, two, 3},
                                                {Progress::Idle{}, std::nullopt, 4}}));
    EXPECT_EQ(renderer->begun(), 1u);
}

TEST_F(GenerationQueueTests, ACancelThatOvertakesTheStartOfTheRenderIsOneLikeAnyOther) {
    queue->request(a, GenerationPace::fast, one);
    EXPECT_TRUE(queue->cancelAll());
    giveUp();  // if the render has begun at all

    EXPECT_EQ(log.await(3),
              (std::vector<Event>{
                  {rendering(a), one, 1}, {Progress::Stopping{}, one, 2}, {Progress::Idle{}, std::nullopt, 3}}));
}

TEST_F(GenerationQueueTests, TheSamePieceMayBeAskedForWhileItsCancelledRenderDrains) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());
    queue->request(a, GenerationPace::fast, two);
    succeed();

    EXPECT_EQ(renderer->awaitRender(2)->identity, a);
    EXPECT_FALSE(store->contains(a));
    succeed();
    EXPECT_EQ(log.await(4).back(), (Event{Progress::Finished{piece(a)}, two, 4}));
}

// MARK: Failures

TEST_F(GenerationQueueTests, AFailureIsToldOnceAndFreesTheQueue) {
    queue->request(a, GenerationPace::fast, one);
    renderer->end([](const Render&) -> LoopArtifact { throw std::runtime_error("no music today"); });

    EXPECT_EQ(log.await(2).back(), (Event{Progress::Failed{a, "no music today"}, one, 2}));
    EXPECT_FALSE(queue->isBusy());
    EXPECT_FALSE(queue->isDraining());
    EXPECT_EQ(renderer->begun(), 1u);

    queue->request(a, GenerationPace::fast, two);
    succeed();
    EXPECT_EQ(log.await(4).back(), (Event{Progress::Finished{piece(a)}, two, 4}));
}

TEST_F(GenerationQueueTests, TheTextOfTheLibrarysOwnErrorsIsTold) {
    queue->request(a, GenerationPace::fast);
    renderer->end([](const Render&) -> LoopArtifact { throw Error("The engine stopped."); });

    EXPECT_EQ(log.await(2).back().progress, Progress(Progress::Failed{a, "The engine stopped."}));
}

TEST_F(GenerationQueueTests, EvenAnExceptionWithoutATextIsAFailure) {
    queue->request(a, GenerationPace::fast);
    renderer->end([](const Render&) -> LoopArtifact { throw 42; });

    EXPECT_EQ(log.await(2).back().progress,
              Progress(Progress::Failed{a, "The renderer failed without giving a reason."}));
}

TEST_F(GenerationQueueTests, TheRegistrysFailuresReachTheUser) {
    EventLog events;
    GenerationQueue registry(std::make_shared<GenerationBackends>(), store, 120);
    registry.observeEvents([&](const Event& event) { events.add(event); });
    const auto unknown = sampleIdentity(1, "sa3_medium_mlx_v9");

    registry.request(unknown, GenerationPace::fast);
    EXPECT_EQ(events.await(2).back().progress,
              Progress(Progress::Failed{unknown, "No generation engine supports sa3_medium_mlx_v9."}));
    registry.request(a, GenerationPace::fast);
    EXPECT_EQ(events.await(4).back().progress,
              Progress(Progress::Failed{a, "Preparing music files for Standard. Starter music can play meanwhile."}));
}

TEST_F(GenerationQueueTests, ThroughTheRegistryARenderIsAtMostAFullTrackLong) {
    const auto backends = std::make_shared<GenerationBackends>();
    backends->registerService(renderer, GenerationEngine::mlx);
    GenerationQueue registry(backends, store, 300);

    registry.request(a, GenerationPace::background);
    const auto render = renderer->awaitRender(1);

    EXPECT_EQ(render->seconds, 120);
    EXPECT_EQ(render->pace, GenerationPace::background);
    renderer->release();
}

TEST_F(GenerationQueueTests, APieceIsStoredAsWhatItsRendererSaysItIs) {
    queue->request(a, GenerationPace::fast, one);
    const LoopArtifact piece = write(b);
    renderer->end([&](const Render&) { return piece; });

    const auto end = log.await(2).back();

    EXPECT_EQ(end, (Event{Progress::Finished{piece}, one, 2}));
    EXPECT_FALSE(store->contains(a));
    EXPECT_EQ(store->artifact(b), piece);
    EXPECT_TRUE(hasFile(b));
    EXPECT_FALSE(queue->isBusy());
}

TEST_F(GenerationQueueTests, ACancelledRenderNeverCostsAStoredPieceItsFile) {
    store->add(write(b));
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    EXPECT_TRUE(queue->cancelAll());
    renderer->end([this](const Render&) { return samplePiece(a, file(b), 120); });
    (void)log.await(3);

    EXPECT_TRUE(hasFile(b));
    EXPECT_EQ(store->artifact(b), piece(b));
}

TEST_F(GenerationQueueTests, ARendererThatGivesUpUnaskedEndsWithoutAnEvent) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    giveUp();

    queue->request(a, GenerationPace::fast, two);  // still the current one
    EXPECT_EQ(queue->pending(), a);
    EXPECT_TRUE(queue->cancelAll(two));
    EXPECT_EQ(log.await(4), (std::vector<Event>{{rendering(a), one, 1},
                                                {rendering(a), two, 2},
                                                {Progress::Stopping{}, two, 3},
                                                {Progress::Idle{}, std::nullopt, 4}}));
    EXPECT_EQ(renderer->begun(), 1u);
}

TEST_F(GenerationQueueTests, ARequestReplacesOneWhoseRendererGaveUpUnasked) {
    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    giveUp();

    queue->request(b, GenerationPace::fast, two);
    EXPECT_EQ(renderer->awaitRender(2)->identity, b);
    succeed();
    EXPECT_EQ(log.await(3).back(), (Event{Progress::Finished{piece(b)}, two, 3}));
}

// MARK: Reports

TEST_F(GenerationQueueTests, ReportsOfManyThreadsComeBeforeTheEnd) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    renderer->end([this](const Render& render) {
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i) {
                threads.emplace_back([&render] {
                    for (int step = 1; step <= 50; ++step) render.onStage(GenerationStage::Sampling{step, 50});
                });
            }
        }
        return write(render.identity);
    });

    const auto events = log.await(202);
    EXPECT_EQ(events.size(), 202u);
    for (std::size_t i = 1; i <= 200; ++i) {
        ASSERT_TRUE(std::holds_alternative<Progress::Stage>(events[i].progress.value())) << i;
    }
    EXPECT_EQ(events.back(), (Event{Progress::Finished{piece(a)}, std::nullopt, 202}));
}

TEST_F(GenerationQueueTests, ReportsOfOneThreadKeepTheirOrder) {
    queue->request(a, GenerationPace::fast);
    const auto render = renderer->awaitRender(1);
    for (int step = 1; step <= 100; ++step) {
        render->onStage(GenerationStage::Sampling{step, 100});
        render->onAudio({.url = file(a), .seconds = static_cast<double>(step), .loudness = std::nullopt});
    }

    const auto events = log.await(201);
    for (int step = 1; step <= 100; ++step) {
        const auto i = static_cast<std::size_t>(2 * step - 1);
        EXPECT_EQ(events[i].progress, Progress(Progress::Stage{a, GenerationStage::Sampling{step, 100}}));
        EXPECT_EQ(events[i + 1].progress,
                  Progress(Progress::Rendering{a, static_cast<double>(step), file(a), std::nullopt}));
    }
}

TEST_F(GenerationQueueTests, ReportsAfterTheRenderOrTheQueueHasEndedGoNowhere) {
    queue->request(a, GenerationPace::fast);
    const auto render = renderer->awaitRender(1);
    succeed();
    (void)log.await(2);

    render->onStage(GenerationStage::Processing{});
    settle();
    EXPECT_EQ(log.events().size(), 2u);

    queue.reset();
    render->onStage(GenerationStage::Processing{});
    render->onAudio({.url = file(a), .seconds = 1, .loudness = std::nullopt});
    EXPECT_EQ(log.events().size(), 2u);
}

// MARK: Observers

TEST_F(GenerationQueueTests, BothKindsOfObserversSeeTheSameEventsProgressFirst) {
    std::vector<std::string> calls;
    std::vector<Progress> progress;
    queue->observe([&](const Progress& value) {
        calls.emplace_back("progress");
        progress.push_back(value);
    });
    queue->observeEvents([&](const Event&) { calls.emplace_back("event"); });

    queue->request(a, GenerationPace::fast);
    succeed();
    const auto events = log.await(2);
    settle();

    EXPECT_EQ(calls, (std::vector<std::string>{"progress", "event", "progress", "event"}));
    ASSERT_EQ(progress.size(), 2u);
    EXPECT_EQ(progress[0], events[0].progress);
    EXPECT_EQ(progress[1], events[1].progress);
    EXPECT_EQ(events[0].sequence, 1u);
    EXPECT_EQ(events[1].sequence, 2u);
}

TEST_F(GenerationQueueTests, EventsAreNumberedWhetherOrNotSomeoneLooks) {
    queue->stopObserving(observer);
    (void)queue->cancelAll();
    EventLog late;
    queue->observeEvents([&](const Event& event) { late.add(event); });
    EXPECT_TRUE(late.events().empty()) << "nothing is replayed";

    (void)queue->cancelAll();

    EXPECT_EQ(late.events(), (std::vector<Event>{{Progress::Idle{}, std::nullopt, 2}}));
    EXPECT_TRUE(log.events().empty());
}

TEST_F(GenerationQueueTests, ForgettingAnUnknownObserverIsHarmless) {
    queue->stopObserving(UUID::random());
    queue->stopObserving(observer);
    queue->stopObserving(observer);

    (void)queue->cancelAll();
    EXPECT_TRUE(log.events().empty());
}

TEST_F(GenerationQueueTests, EachObserverHasAnIdOfItsOwn) {
    const auto ignore = [](const auto&) {};
    EXPECT_NE(queue->observe(ignore), queue->observe(ignore));
    EXPECT_NE(queue->observeEvents(ignore), observer);
}

// MARK: Handlers that call the queue

TEST_F(GenerationQueueTests, AHandlerMayAskForTheNextPiece) {
    queue->observe([&](const Progress& progress) {
        const auto* finished = std::get_if<Progress::Finished>(&progress.value());
        if (finished != nullptr && finished->piece.identity == a) queue->request(b, GenerationPace::fast, two);
    });

    queue->request(a, GenerationPace::fast, one);
    (void)renderer->awaitRender(1);
    succeed();
    EXPECT_EQ(renderer->awaitRender(2)->identity, b);
    succeed();

    EXPECT_EQ(log.await(4), (std::vector<Event>{{rendering(a), one, 1},
                                                {Progress::Finished{piece(a)}, one, 2},
                                                {rendering(b), two, 3},
                                                {Progress::Finished{piece(b)}, two, 4}}));
}

TEST_F(GenerationQueueTests, WhatAHandlerAsksForComesBehindTheOperationThatGoesOn) {
    queue->observe([&](const Progress& progress) {  // called before the log
        if (progress == rendering(a)) queue->request(b, GenerationPace::fast);
    });

    queue->request(a, GenerationPace::fast);
    settle();

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), std::nullopt, 1}, {rendering(b), std::nullopt, 2}}));
}

TEST_F(GenerationQueueTests, AHandlerIsAnsweredAtOnce) {
    struct Answers {
        bool isBusy, isDraining;
        std::optional<LoopIdentity> pending;
        bool operator==(const Answers&) const = default;
    };
    std::vector<Answers> answers;
    queue->observe([&](const Progress&) {
        answers.push_back({queue->isBusy(), queue->isDraining(), queue->pending()});
    });

    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    succeed();
    (void)log.await(2);
    queue->request(b, GenerationPace::fast);
    (void)renderer->awaitRender(2);
    (void)queue->cancelAll();
    giveUp();
    (void)log.await(5);
    settle();

    const Answers free{false, false, std::nullopt};
    EXPECT_EQ(answers, (std::vector<Answers>{{true, false, a},             // rendering
                                             free,                         // finished
                                             {true, false, b},             // rendering
                                             {false, true, std::nullopt},  // stopping
                                             free}));                      // idle
}

TEST_F(GenerationQueueTests, HandlersMayObserveAndForget) {
    EventLog late;
    std::optional<UUID> once;
    int calls = 0;
    once = queue->observe([&](const Progress&) {
        ++calls;
        queue->stopObserving(*once);
        queue->observeEvents([&](const Event& event) { late.add(event); });
    });

    (void)queue->cancelAll();
    settle();
    (void)queue->cancelAll();

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(late.events(), (std::vector<Event>{{Progress::Idle{}, std::nullopt, 2}}));
}

TEST_F(GenerationQueueTests, AStopCallbackOfTheRendererMayAskTheQueue) {
    queue->request(a, GenerationPace::fast);
    const auto render = renderer->awaitRender(1);
    std::optional<LoopIdentity> seen;
    const std::stop_callback onStop(render->stop, [&] {
        seen = queue->pending();
        queue->request(c, GenerationPace::fast);
    });

    queue->request(b, GenerationPace::fast);
    settle();

    EXPECT_EQ(seen, b);
    EXPECT_EQ(queue->pending(), c);
    EXPECT_EQ(log.events().size(), 3u);
}

TEST_F(GenerationQueueTests, TheRenderersThreadMayAskTheQueue) {
    std::optional<LoopIdentity> seen;
    queue->request(a, GenerationPace::fast);
    renderer->end([&](const Render& render) {
        seen = queue->pending();
        return write(render.identity);
    });
    (void)log.await(2);

    EXPECT_EQ(seen, a);
}

TEST_F(GenerationQueueTests, CancellingFromAHandlerStopsTheProcess) {
    EXPECT_DEATH(
        {
            queue->observe([&](const Progress&) { (void)queue->cancelAll(); });
            (void)queue->cancelAll();
        },
        "cancelAll must not be called from one of its handlers");
}

TEST_F(GenerationQueueTests, DestroyingTheQueueFromAHandlerStopsTheProcess) {
    EXPECT_DEATH(
        {
            queue->observe([&](const Progress&) { queue.reset(); });
            (void)queue->cancelAll();
        },
        "must not be destroyed from one of its handlers");
}

TEST_F(GenerationQueueTests, DestroyingTheQueueFromItsRendererStopsTheProcess) {
    EXPECT_DEATH(
        {
            queue->request(a, GenerationPace::fast);
            renderer->end([&](const Render&) -> LoopArtifact {
                queue.reset();
                throw CancellationError();
            });
            (void)log.await(100);
        },
        "must not be destroyed from its renderer");
}

TEST_F(GenerationQueueTests, AnExceptionOutOfAHandlerStopsTheProcess) {
    EXPECT_DEATH(
        {
            queue->observe([](const Progress&) { throw std::runtime_error("not my day"); });
            (void)queue->cancelAll();
        },
        "an observer of a GenerationQueue let an exception out: not my day");
    EXPECT_DEATH(
        {
            queue->observeEvents([](const Event&) { throw 42; });
            (void)queue->cancelAll();
        },
        "an observer of a GenerationQueue let an exception out");
}

TEST_F(GenerationQueueTests, WithoutServiceStoreOrHandlerTheProcessStops) {
    EXPECT_DEATH(GenerationQueue(nullptr, store, 120), "needs a service");
    EXPECT_DEATH(GenerationQueue(renderer, nullptr, 120), "needs a store");
    EXPECT_DEATH((void)queue->observe(nullptr), "needs a handler");
    EXPECT_DEATH((void)queue->observeEvents(nullptr), "needs a handler");
}

// MARK: The end of a queue

TEST_F(GenerationQueueTests, DestroyingAQueueCancelsWaitsAndTellsNothing) {
    queue->request(a, GenerationPace::fast);
    const auto render = renderer->awaitRender(1);
    std::latch stopped(1);
    const std::stop_callback onStop(render->stop, [&] { stopped.count_down(); });
    std::jthread ends([&] {
        stopped.wait();
        succeed();
    });

    queue.reset();

    EXPECT_EQ(log.events().size(), 1u);
    EXPECT_FALSE(hasFile(a)) << "the render's result is deleted before the queue is gone";
    EXPECT_FALSE(store->contains(a));
}

TEST_F(GenerationQueueTests, AWaitingRequestEndsWithItsQueue) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    queue->request(b, GenerationPace::fast);
    std::jthread ends([&] { renderer->release(); });

    queue.reset();

    EXPECT_EQ(log.events(), (std::vector<Event>{{rendering(a), std::nullopt, 1}, {rendering(b), std::nullopt, 2}}));
    EXPECT_FALSE(store->contains(b));
}

TEST_F(GenerationQueueTests, ADrainEndsWithItsQueue) {
    queue->request(a, GenerationPace::fast);
    (void)renderer->awaitRender(1);
    (void)queue->cancelAll();
    std::jthread ends([&] { succeed(); });

    queue.reset();

    const auto events = log.events();  // the render may just have ended before the queue did
    EXPECT_TRUE(events.size() == 2 || (events.size() == 3 && events[2].progress == Progress(Progress::Idle{})));
    EXPECT_FALSE(hasFile(a));
}

TEST_F(GenerationQueueTests, HandlersThatAskWithoutEndHoldNobodyUp) {
    store->add(write(a));
    queue->observe([&](const Progress&) { queue->request(a, GenerationPace::fast); });

    (void)queue->cancelAll();
    (void)log.await(100);
    EXPECT_FALSE(queue->cancelAll());

    queue.reset();
}

TEST_F(GenerationQueueTests, AnUnusedQueueCanBeDestroyed) {
    queue.reset();

    EXPECT_TRUE(log.events().empty());
    EXPECT_EQ(renderer->begun(), 0u);
}

// MARK: Values

TEST_F(GenerationQueueTests, ProgressIsEqualByCaseAndPayload) {
    const std::vector<Progress> all = {
        Progress::Stage{a, GenerationStage::Encoding{}},
        Progress::Stage{b, GenerationStage::Encoding{}},
        Progress::Stage{a, GenerationStage::Decoding{}},
        rendering(a),
        rendering(b),
        Progress::Rendering{a, 1, std::nullopt, std::nullopt},
        Progress::Rendering{a, 1, file(a), std::nullopt},
        Progress::Rendering{a, 1, file(a), sampleLoudness(-18)},
        Progress::Finished{piece(a)},
        Progress::Finished{piece(b)},
        Progress::Failed{a, "x"},
        Progress::Failed{a, "y"},
        Progress::Failed{b, "x"},
        Progress::Idle{},
        Progress::Stopping{},
    };
    for (std::size_t i = 0; i < all.size(); ++i) {
        for (std::size_t j = 0; j < all.size(); ++j) EXPECT_EQ(all[i] == all[j], i == j) << i << ", " << j;
    }
}

TEST_F(GenerationQueueTests, EventsAreEqualByAllTheirFields) {
    const Event event{Progress::Idle{}, one, 7};

    EXPECT_EQ(event, (Event{Progress::Idle{}, one, 7}));
    EXPECT_NE(event, (Event{Progress::Stopping{}, one, 7}));
    EXPECT_NE(event, (Event{Progress::Idle{}, two, 7}));
    EXPECT_NE(event, (Event{Progress::Idle{}, one, 8}));
}

TEST(EventSequenceTests, CountsFromOneAndNeverWrapsAround) {
    EventSequence fresh;
    EXPECT_EQ(fresh.next(), 1u);
    EXPECT_EQ(fresh.next(), 2u);

    constexpr auto last = std::numeric_limits<std::uint64_t>::max();
    EventSequence old(last - 1);
    EXPECT_EQ(old.next(), last);
    EXPECT_DEATH((void)old.next(), "event numbers are used up");
}

}  // namespace
}  // namespace quillmere
