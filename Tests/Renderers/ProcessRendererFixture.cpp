#include "Tests/Renderers/ProcessRendererFixture.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace quillmere::test {

VisibleProcesses::VisibleProcesses(const TemporaryFolder& folder)
    : lock_(folder.putFile("living", "")), fifo_(folder.path() / "births") {
    lockFile_ = ::open(lock_.c_str(), O_RDONLY | O_CLOEXEC);
    if (lockFile_ < 0 || ::mkfifo(fifo_.c_str(), 0600) != 0) std::abort();
    fifoEnd_ = ::open(fifo_.c_str(), O_RDWR | O_CLOEXEC);  // both ways: nobody has to wait for the other to open it
    if (fifoEnd_ < 0) std::abort();
}

VisibleProcesses::~VisibleProcesses() {
    ::close(lockFile_);
    ::close(fifoEnd_);
}

void VisibleProcesses::awaitBirths(int count) const {
    for (char byte = 0; count > 0; --count) {
        while (::read(fifoEnd_, &byte, 1) != 1) {
        }
    }
}

bool VisibleProcesses::areGone() const { return ::flock(lockFile_, LOCK_EX | LOCK_NB) == 0; }

void VisibleProcesses::awaitDeaths() const {
    while (::flock(lockFile_, LOCK_EX) != 0) {
    }
}

ProcessRendererTests::ProcessRendererTests() {
    store = std::make_shared<LoopStore>(loops, ResourceBundle(folder.path() / "none"), [](const FileURL& url) {
        std::error_code error;
        return std::filesystem::remove_all(url.path(), error) > 0;
    });
    options.grace = std::chrono::milliseconds(100);
    options.lingerLimit = std::chrono::minutes(5);  // longer than any test: what must not be reached
    options.silenceLimit = std::chrono::minutes(5);
    options.buildLimit = std::chrono::minutes(5);
    identity.moodID = "designflow";
    identity.blend = BlendStep(2);
    identity.calmPrompt = "soft rain, felt piano";
    identity.energeticPrompt = "bright arpeggio";
    identity.seed = 7;
    identity.model = "sa3_medium_mlx_v2";
    openDescriptors_ = openDescriptors();
}

ProcessRendererTests::~ProcessRendererTests() {
    EXPECT_EQ(openDescriptors(), openDescriptors_);
    EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
    for (const auto& name : library()) {
        EXPECT_FALSE(name.starts_with("Render-") || name.starts_with(".Render-")) << name << " is left";
    }
}

std::unique_ptr<ProcessRenderer> ProcessRendererTests::renderer(std::vector<std::string> behaviour) const {
    behaviour.insert(behaviour.begin(), QUILLMERE_TEST_ENGINE);
    return std::make_unique<ProcessRenderer>(std::move(behaviour), store, options);
}

LoopArtifact ProcessRendererTests::render(const std::vector<std::string>& behaviour) {
    return render(*renderer(behaviour));
}

LoopArtifact ProcessRendererTests::render(ProcessRenderer& with) {
    const GenerationService::AudioHandler audioHandler = [&](const GenerationAudio& report) {
        audio.push_back(report);
        if (onAudio) onAudio(report);
    };
    const GenerationService::StageHandler stageHandler = [&](const GenerationStage& stage) {
        stages.push_back(stage);
        if (onStage) onStage(stage);
    };
    return with.render(identity, seconds, pace, audioHandler, stageHandler, stop.get_token());
}

EngineFailure ProcessRendererTests::failureOf(const std::vector<std::string>& behaviour) {
    return failureOf(*renderer(behaviour));
}

EngineFailure ProcessRendererTests::failureOf(ProcessRenderer& with) {
    try {
        render(with);
    } catch (const EngineFailure& failure) {
        return failure;
    }
    throw std::runtime_error("the render did not fail");
}

std::vector<std::string> ProcessRendererTests::library() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(loops)) {
        const std::string name = entry.path().filename();
        if (name != ".lock" && !name.starts_with("manifest.")) names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
}

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::vector<int> children() {
    std::vector<int> found;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        for (int id = 0; list >> id;) found.push_back(id);
    }
    return found;
}

char stateOf(int process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::stringstream text;
    text << file.rdbuf();
    const auto nameEnd = text.str().rfind(')');
    return nameEnd == std::string::npos ? '-' : text.str().at(nameEnd + 2);
}

}  // namespace quillmere::test
