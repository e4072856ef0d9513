#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "QuillmereKit/Generation/GenerationAudio.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "Renderers/ProcessRenderer.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {

/// Processes that show whether they live, by a lock that each of them holds.
class VisibleProcesses {
public:
    explicit VisibleProcesses(const TemporaryFolder& folder);
    ~VisibleProcesses();
    VisibleProcesses(const VisibleProcesses&) = delete;
    VisibleProcesses& operator=(const VisibleProcesses&) = delete;

    /// The file to lock and the fifo to say so in, as arguments for the engine.
    [[nodiscard]] std::string lock() const { return lock_.string(); }
    [[nodiscard]] std::string fifo() const { return fifo_.string(); }

    /// Waits until so many have said that they live.
    void awaitBirths(int count) const;
    /// Whether none of them lives.
    [[nodiscard]] bool areGone() const;
    /// Waits until none of them lives.
    void awaitDeaths() const;

private:
    std::filesystem::path lock_, fifo_;
    int lockFile_ = -1, fifoEnd_ = -1;
};

/// A renderer over the tests' engine and a store of its own, with short times. After each test nothing may be left of
/// any render: no process, no descriptor, nothing in the library's folder that does not belong there.
struct ProcessRendererTests : testing::Test {
    ProcessRendererTests();
    ~ProcessRendererTests() override;

    TemporaryFolder folder;
    std::filesystem::path loops = folder.path() / "Loops";
    std::shared_ptr<LoopStore> store;
    ProcessRendererOptions options;
    LoopIdentity identity;
    double seconds = 0.5;
    GenerationPace pace = GenerationPace::fast;
    std::vector<GenerationStage> stages;
    std::vector<GenerationAudio> audio;
    std::function<void(const GenerationStage&)> onStage;
    std::function<void(const GenerationAudio&)> onAudio;
    std::stop_source stop;

    /// A renderer whose engine behaves as the words say.
    [[nodiscard]] std::unique_ptr<ProcessRenderer> renderer(std::vector<std::string> behaviour) const;

    /// Renders `identity` once and records what is reported.
    LoopArtifact render(const std::vector<std::string>& behaviour);
    LoopArtifact render(ProcessRenderer& with);

    /// The same, where it must fail.
    [[nodiscard]] EngineFailure failureOf(const std::vector<std::string>& behaviour);
    [[nodiscard]] EngineFailure failureOf(ProcessRenderer& with);

    /// What lies in the library's folder, its bookkeeping aside.
    [[nodiscard]] std::vector<std::string> library() const;
    /// The name that the finished piece must have.
    [[nodiscard]] std::string pieceName() const { return identity.filename() + ".wav"; }

private:
    std::size_t openDescriptors_ = 0;
};

/// How many descriptors this process has open.
[[nodiscard]] std::size_t openDescriptors();

/// The ids of this process's children.
[[nodiscard]] std::vector<int> children();

/// The one-letter state of a process, see proc_pid_stat(5); '-' if there is none.
[[nodiscard]] char stateOf(int process);

}  // namespace quillmere::test
