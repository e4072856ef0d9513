// How a render ends when its engine does not do what it should, is stopped, or loses its host.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <latch>
#include <thread>

#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "Renderers/ProcessRenderer.hpp"
#include "Tests/Renderers/ProcessRendererFixture.hpp"

namespace quillmere::test {
namespace {

using Reason = EngineFailure::Reason;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

struct ProcessRendererEndTests : ProcessRendererTests {
    VisibleProcesses processes{folder};
    const GenerationStage decoding = *GenerationStage::fromEngineLine("decoder");

    /// Asks for the end as soon as the engine says that it is decoding.
    void stopWhenDecoding() {
        onStage = [&](const GenerationStage& stage) {
            if (stage == decoding) stop.request_stop();
        };
    }
};

// What it says.

TEST_F(ProcessRendererEndTests, GarbageIsIgnored) { EXPECT_EQ(render({"garbage"}).seconds, 0.5); }

TEST_F(ProcessRendererEndTests, OtherLinesAreIgnored) {
    EXPECT_EQ(
        render({"says", "", "hello", "audio device found", "results may vary", "Progress sampling 1/2 1/1 running",
                "progress sampling 3/2 1/1 running", "audio encoderx", "\xFF\xFE"})
            .seconds,
        0.5);
    EXPECT_THAT(stages, ElementsAre(GenerationStage::Preparing{}, GenerationStage::Processing{}));
}

TEST_F(ProcessRendererEndTests, ALineOfAHundredMegabytesIsSkipped) { EXPECT_EQ(render({"long-line"}).seconds, 0.5); }

TEST_F(ProcessRendererEndTests, OfAMillionLinesTheNewestArePassedOn) {
    options.reportInterval = std::chrono::hours(1);

    render({"many-lines"});

    // The first when it came, and at the end the newest.
    ASSERT_EQ(stages.size(), 4U);
    EXPECT_EQ(stages[2], GenerationStage(GenerationStage::Sampling{1'000'000, 1'000'000}));
}

TEST_F(ProcessRendererEndTests, OfManyPartialReportsTheNewestArePassedOn) {
    options.reportInterval = std::chrono::hours(1);

    render({"many-partials"});

    EXPECT_EQ(audio.size(), 1U);  // there was never more in the file
}

TEST_F(ProcessRendererEndTests, AResultWithoutALineFeedCounts) {
    EXPECT_EQ(render({"without-last-line-feed"}).seconds, 0.5);
}

TEST_F(ProcessRendererEndTests, AnEngineThatNeverStopsTalkingIsStopped) {
    options.outputLimit = std::uint64_t{1} << 20;
    for (const std::string behaviour : {"endless-garbage", "endless-line", "endless-errors"}) {
        SCOPED_TRACE(behaviour);

        EXPECT_EQ(failureOf({behaviour}).reason(), Reason::flooding);
    }
}

TEST_F(ProcessRendererEndTests, AnEngineMaySay256MiBAndNotOneByteMore) {
    EXPECT_EQ(render({"says-bytes", "268435456"}).seconds, 0.5);

    EXPECT_EQ(failureOf({"says-bytes", "268435457"}).reason(), Reason::flooding);
}

TEST_F(ProcessRendererEndTests, AnEngineThatSaysNothingIsStopped) {
    options.silenceLimit = std::chrono::milliseconds(50);

    const auto failure = failureOf({"silent"});

    EXPECT_EQ(failure.reason(), Reason::silent);
    EXPECT_THAT(failure.what(), HasSubstr("reported nothing for 1 s"));
}

TEST_F(ProcessRendererEndTests, GarbageIsNoSignOfLife) {
    options.silenceLimit = std::chrono::milliseconds(50);
    options.outputLimit = std::numeric_limits<std::uint64_t>::max();

    EXPECT_EQ(failureOf({"endless-garbage"}).reason(), Reason::silent);
}

TEST_F(ProcessRendererEndTests, AnEngineThatClosesItsOutputAndLingersIsStopped) {
    options.lingerLimit = std::chrono::milliseconds(50);

    EXPECT_EQ(failureOf({"closes-output"}).reason(), Reason::lingering);
}

TEST_F(ProcessRendererEndTests, AnEngineThatLingersAfterItsResultIsStopped) {
    options.lingerLimit = std::chrono::milliseconds(50);

    EXPECT_EQ(failureOf({"result-and-no-end"}).reason(), Reason::lingering);
    EXPECT_THAT(library(), IsEmpty());
}

TEST_F(ProcessRendererEndTests, AnEngineIsNotBlamedForAHandlerThatTakesItsTime) {
    options.lingerLimit = std::chrono::milliseconds(50);
    onStage = [&](const GenerationStage& stage) {
        if (stage != decoding) return;
        for (const int supervisor : children()) {
            while (stateOf(supervisor) != 'Z') std::this_thread::yield();
        }
        std::this_thread::sleep_for(options.lingerLimit);
    };

    EXPECT_EQ(render({"says-all-at-once"}).seconds, 0.5);
}

TEST_F(ProcessRendererEndTests, AReportThatCannotBeReadIsAFailure) {
    for (const std::string line : {
             R"(audio {"file":"part.wav"})",
             R"(audio {"file":"part.wav","seconds":-1})",
             R"(audio {"file":"part.wav","seconds":1e999})",
             R"(audio {"file":3,"seconds":1})",
             R"(audio {"file":"part.wav","seconds":1)",
             "audio {\"file\":\"\xFF.wav\",\"seconds\":1}",
             R"(result {"file":"audio.wav"})",
             R"(result {"seconds":0.5})",
             R"(result {"file":"audio.wav","seconds":NaN})",
             R"(result {"file":"audio.wav","seconds":0.5,"seamDB":1e999})",
             R"(result {"file":"audio.wav","seconds":0.5,"brightness":1e999,"makeupDB":1})",
             R"(result {"file":"audio.wav","seconds":0.5,"brightness":1})",
             R"(result {"file":"audio.wav","seconds":0.5,"makeupDB":1})",
             R"(result {"file":"audio.wav","seconds":0.5,"leadIn":-0.1})",
             R"(result {"file":"audio.wav","seconds":0.5,"leadIn":0.6})",
             R"(result {"file":"audio.wav","seconds":true})",
             R"(result {"file":"audio.wav","seconds":0.5} and more)",
             "result {\"file\":\"audio.wav\",\"seconds\":0.5,\"x\":\"\xC3\"}",
             "result {",
         }) {
        SCOPED_TRACE(line);

        EXPECT_EQ(failureOf({"says", line}).reason(), Reason::malformedReport);
        EXPECT_THAT(library(), IsEmpty());
    }
}

// How it ends.

TEST_F(ProcessRendererEndTests, AStatusOtherThanZeroIsAFailureWithTheEnginesWords) {
    const auto failure = failureOf({"exits", "3", "no more memory"});

    EXPECT_EQ(failure.reason(), Reason::exitStatus);
    EXPECT_THAT(failure.what(), testing::StrEq("The engine failed with status 3: no more memory"));
}

TEST_F(ProcessRendererEndTests, AFailureAfterTheResultIsAFailure) {
    EXPECT_EQ(failureOf({"fails-after-result"}).reason(), Reason::exitStatus);
    EXPECT_THAT(library(), IsEmpty());
}

TEST_F(ProcessRendererEndTests, AnEndWithoutAResultIsAFailure) {
    const auto failure = failureOf({"exits", "0", "forgot it"});

    EXPECT_EQ(failure.reason(), Reason::noResult);
    EXPECT_THAT(failure.what(), testing::StrEq("The engine ended without a result: forgot it"));
}

TEST_F(ProcessRendererEndTests, AnEndByASignalIsAFailureThatNamesIt) {
    const auto killed = failureOf({"dies", std::to_string(SIGKILL)});
    const auto crashed = failureOf({"dies", std::to_string(SIGSEGV)});

    EXPECT_EQ(killed.reason(), Reason::signalled);
    EXPECT_THAT(killed.what(), HasSubstr("signal 9 (Killed): last words"));
    EXPECT_THAT(crashed.what(), HasSubstr("signal 11 (Segmentation fault): last words"));
}

TEST_F(ProcessRendererEndTests, TheEnginesWordsAreShownAsCleanText) {
    const std::string text = failureOf({"bad-errors"}).what();

    EXPECT_TRUE(isValidUTF8(text));
    EXPECT_THAT(text, EndsWith("aaa\uFFFD\uFFFD broken [31mred[0m tab  end"));
    EXPECT_LT(text.size(), 4096U + 100U);
}

TEST_F(ProcessRendererEndTests, AnEngineThatReadsNothingIsNoTrouble) {
    identity.calmPrompt = std::string(std::size_t{1} << 20, 'x');  // more than a pipe holds

    EXPECT_EQ(render({"deaf-and-well", "24000"}).seconds, 0.5);
    EXPECT_EQ(failureOf({"deaf"}).reason(), Reason::exitStatus);
}

TEST_F(ProcessRendererEndTests, ACommandThatCannotBeRunIsAFailure) {
    const auto text = folder.putFile("text", "not a program");
    const auto script = folder.putFile("script", "no interpreter is named here");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    const auto badInterpreter = folder.putFile("bad", "#!/nonexistent/interpreter\n");
    std::filesystem::permissions(badInterpreter, std::filesystem::perms::owner_all);
    for (const std::string& command :
         {std::string("/nonexistent/engine"), std::string("no-such-engine-anywhere"), text.string(), script.string(),
          badInterpreter.string(), folder.path().string()}) {
        SCOPED_TRACE(command);
        ProcessRenderer with({command}, store, options);

        try {
            render(with);
            ADD_FAILURE() << "rendered";
        } catch (const EngineFailure& failure) {
            EXPECT_EQ(failure.reason(), Reason::notStarted);
            EXPECT_THAT(failure.what(), HasSubstr(command));
        }
    }
}

TEST_F(ProcessRendererEndTests, AMissingSupervisorIsAFailure) {
    options.supervisor = "/nonexistent/quillmere-supervisor";

    const auto failure = failureOf({"well"});

    EXPECT_EQ(failure.reason(), Reason::notStarted);
    EXPECT_THAT(failure.what(), HasSubstr("/nonexistent/quillmere-supervisor"));
}

TEST_F(ProcessRendererEndTests, AnEmptyCommandStopsTheProcess) {
    EXPECT_DEATH(ProcessRenderer({}, store), "A renderer needs the command of an engine.");
    EXPECT_DEATH(ProcessRenderer({""}, store), "A renderer needs the command of an engine.");
    EXPECT_DEATH(ProcessRenderer({"engine"}, nullptr), "A renderer needs a store.");
}

TEST_F(ProcessRendererEndTests, ASupervisorThatIsKilledTakesTheEngineWithIt) {
    std::jthread killer([&] {
        processes.awaitBirths(1);
        for (const int supervisor : children()) ::kill(supervisor, SIGKILL);
    });

    const auto failure = failureOf({"stubborn", processes.lock(), processes.fifo()});

    EXPECT_EQ(failure.reason(), Reason::lost);
    processes.awaitDeaths();
}

TEST_F(ProcessRendererEndTests, EveryLackOfADescriptorIsAFailureThatLeavesNothing) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const auto with = renderer({"well"});
    ASSERT_EQ(with->engineBuild(identity), "test-engine 1");
    int failures = 0;
    bool hasRendered = false;
    const int firstFree = ::dup(STDIN_FILENO);
    ASSERT_GE(firstFree, 0);
    ::close(firstFree);
    const auto none = static_cast<rlim_t>(firstFree);
    for (auto limit = none; !hasRendered && limit < none + 64; ++limit) {
        SCOPED_TRACE("descriptors below " + std::to_string(limit));
        const auto unasked = renderer({"well"});
        auto scarce = before;
        scarce.rlim_cur = limit;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &scarce), 0);
        EXPECT_NO_THROW(static_cast<void>(unasked->engineBuild(identity)));
        try {
            render(*with);
            hasRendered = true;
        } catch (const EngineFailure&) {
            ++failures;
        } catch (const FileError&) {
            ++failures;
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        ::setrlimit(RLIMIT_NOFILE, &before);
        if (!hasRendered) {
            EXPECT_THAT(library(), IsEmpty());
        }
    }

    EXPECT_TRUE(hasRendered);
    EXPECT_GT(failures, 5);
}

// What it started.

TEST_F(ProcessRendererEndTests, NothingThatTheEngineStartedSurvivesTheRender) {
    const auto go = folder.path() / "go";
    ASSERT_EQ(::mkfifo(go.c_str(), 0600), 0);
    std::jthread witness([&] {
        processes.awaitBirths(2);
        std::ofstream(go) << "x";
    });

    const auto piece = render({"orphans", processes.lock(), processes.fifo(), go.string()});

    EXPECT_EQ(piece.seconds, 0.5);
    EXPECT_TRUE(processes.areGone());
}

TEST_F(ProcessRendererEndTests, WhileWhatAnEngineLeftIsEndedTheHostRests) {
    options.lingerLimit = std::chrono::seconds(1);  // passes meanwhile
    options.grace = std::chrono::milliseconds(2500);
    const auto go = folder.path() / "go";
    ASSERT_EQ(::mkfifo(go.c_str(), 0600), 0);
    std::jthread witness([&] {
        processes.awaitBirths(2);
        std::ofstream(go) << "x";
    });
    const auto worked = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    };
    const auto before = worked();

    render({"orphans", processes.lock(), processes.fifo(), go.string()});

    EXPECT_LT(worked() - before, std::chrono::milliseconds(500));
}

// What it does to its supervisor.

TEST_F(ProcessRendererEndTests, AnEngineThatStopsItsSupervisorIsEnded) {
    options.lingerLimit = std::chrono::milliseconds(50);

    EXPECT_EQ(failureOf({"stops-supervisor"}).reason(), Reason::lingering);

    EXPECT_THAT(library(), IsEmpty());
}

TEST_F(ProcessRendererEndTests, ARenderWhoseSupervisorIsStoppedCanBeCancelled) {
    stopWhenDecoding();

    EXPECT_THROW(render({"stops-supervisor-and-stays"}), CancellationError);
}

TEST_F(ProcessRendererEndTests, WhoeverStopsTheSupervisorAgainAndAgainIsKilled) {
    options.grace = std::chrono::seconds(1);  // enough to begin with it
    const auto go = folder.path() / "go";
    ASSERT_EQ(::mkfifo(go.c_str(), 0600), 0);

    try {
        render({"leaves-one-who-signals-the-supervisor", processes.lock(), processes.fifo(), go.string(),
                std::to_string(SIGSTOP)});
        EXPECT_TRUE(processes.areGone());  // on a busy machine the supervisor may get to its end all the same
    } catch (const EngineFailure& failure) {
        EXPECT_EQ(failure.reason(), Reason::lost);
        EXPECT_THAT(library(), IsEmpty());
    }
    processes.awaitDeaths();
}

TEST_F(ProcessRendererEndTests, APieceIsNotBelievedWhoseSupervisorIsKilledAtItsEnd) {
    options.grace = std::chrono::minutes(5);
    const auto go = folder.path() / "go";
    ASSERT_EQ(::mkfifo(go.c_str(), 0600), 0);

    const auto failure = failureOf({"leaves-one-who-signals-the-supervisor", processes.lock(), processes.fifo(),
                                    go.string(), std::to_string(SIGKILL)});

    EXPECT_EQ(failure.reason(), Reason::lost);
    EXPECT_THAT(library(), IsEmpty());
    processes.awaitDeaths();
}

// Cancellation.

TEST_F(ProcessRendererEndTests, ACancelledRenderNeverStarts) {
    stop.request_stop();

    EXPECT_THROW(render({"record", (folder.path() / "request").string()}), CancellationError);

    EXPECT_FALSE(std::filesystem::exists(folder.path() / "request"));
    EXPECT_THAT(stages, IsEmpty());
}

TEST_F(ProcessRendererEndTests, AnEngineIsAskedPolitelyFirst) {
    options.grace = std::chrono::minutes(5);
    stopWhenDecoding();

    EXPECT_THROW(render({"polite", (folder.path() / "note").string()}), CancellationError);

    EXPECT_EQ(folder.content("note"), "asked");
}

TEST_F(ProcessRendererEndTests, AnEngineThatIsStoppedIsAskedPolitelyToo) {
    options.grace = std::chrono::minutes(5);
    stopWhenDecoding();

    EXPECT_THROW(render({"polite-but-stopped", (folder.path() / "note").string()}), CancellationError);

    EXPECT_EQ(folder.content("note"), "asked");
}

TEST_F(ProcessRendererEndTests, TheEndOfItsInputTellsAnEngineToStop) {
    options.grace = std::chrono::minutes(5);
    stopWhenDecoding();

    EXPECT_THROW(render({"stops-at-end-of-input", (folder.path() / "note").string()}), CancellationError);

    EXPECT_EQ(folder.content("note"), "input ended");
}

TEST_F(ProcessRendererEndTests, AnEngineThatIgnoresEverythingIsKilledAfterTheGracePeriod) {
    std::jthread canceller([&] {
        processes.awaitBirths(1);
        stop.request_stop();
    });

    EXPECT_THROW(render({"stubborn", processes.lock(), processes.fifo()}), CancellationError);

    EXPECT_TRUE(processes.areGone());
}

TEST_F(ProcessRendererEndTests, AFamilyThatIgnoresEverythingIsKilledAfterTheGracePeriod) {
    std::jthread canceller([&] {
        processes.awaitBirths(3);
        stop.request_stop();
    });

    EXPECT_THROW(render({"stubborn-family", processes.lock(), processes.fifo()}), CancellationError);

    EXPECT_TRUE(processes.areGone());
}

TEST_F(ProcessRendererEndTests, CancellingWhileTheResultIsCheckedLeavesNothing) {
    onStage = [&](const GenerationStage& stage) {
        if (stage == GenerationStage(GenerationStage::Processing{})) stop.request_stop();
    };

    EXPECT_THROW(render({"well"}), CancellationError);
    stop = std::stop_source();
    EXPECT_THROW(render({"says-seconds", "1"}), CancellationError);  // nobody waits for what is wrong with it

    EXPECT_THAT(library(), IsEmpty());
}

TEST_F(ProcessRendererEndTests, DestroyingARendererCancelsItsRendersAndWaits) {
    auto with = renderer({"stubborn", processes.lock(), processes.fifo()});
    std::jthread rendering([&] { EXPECT_THROW(render(*with), CancellationError); });
    processes.awaitBirths(1);

    with.reset();

    EXPECT_TRUE(processes.areGone());
}

TEST_F(ProcessRendererEndTests, AHandlerThatThrowsEndsTheRender) {
    onStage = [&](const GenerationStage& stage) {
        if (stage == decoding) throw std::runtime_error("enough");
    };

    EXPECT_THROW(render({"says", "decoder"}), std::runtime_error);

    EXPECT_THAT(library(), IsEmpty());
}

// The host's death.

TEST_F(ProcessRendererEndTests, NothingSurvivesAHostThatIsKilled) {
    const auto library = folder.path() / "HostLoops";
    const std::vector<std::string> command{QUILLMERE_TEST_HOST, library.string(), QUILLMERE_TEST_ENGINE,
                                           "stubborn-family",   processes.lock(), processes.fifo()};
    std::vector<char*> arguments;
    for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    pid_t host = -1;
    ASSERT_EQ(::posix_spawn(&host, arguments[0], nullptr, nullptr, arguments.data(), environ), 0);
    processes.awaitBirths(3);

    ::kill(host, SIGKILL);
    ASSERT_EQ(::waitpid(host, nullptr, 0), host);

    processes.awaitDeaths();
    // What is left is a dead run's folder, and the next start removes it.
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(library)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("Render-")) left.push_back(name);
    }
    ASSERT_EQ(left.size(), 1U);
    EXPECT_TRUE(std::filesystem::exists(library / left[0] / ".lock"));
    EXPECT_FALSE(FolderLock::isHeld(library / left[0] / ".lock"));
    const LoopStore next(library, ResourceBundle(library / "none"), [](const FileURL&) { return false; });
    EXPECT_FALSE(std::filesystem::exists(library / left[0]));
}

}  // namespace
}  // namespace quillmere::test
