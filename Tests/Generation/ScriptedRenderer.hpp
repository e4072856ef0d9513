#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

#include "QuillmereKit/Generation/GenerationService.hpp"
#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere::test {

/// A renderer that does nothing by itself: the test waits until a render has begun, reports in its name, and says how
/// it ends. Thread-safe.
class ScriptedRenderer : public GenerationService {
public:
    /// A render as the renderer was asked for it. The test calls the callbacks.
    struct Render {
        LoopIdentity identity;
        double seconds;
        GenerationPace pace;
        AudioHandler onAudio;
        StageHandler onStage;
        std::stop_token stop;
    };
    /// Runs on the render's thread as its last act: returns a piece or throws.
    using Ending = std::function<LoopArtifact(const Render&)>;

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        throw Error("only the fullest form is asked for");
    }
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace, const AudioHandler& onAudio,
                        const StageHandler& onStage, std::stop_token stop) override {
        const auto render = std::make_shared<const Render>(Render{identity, seconds, pace, onAudio, onStage, stop});
        Ending ending;
        {
            std::unique_lock lock(mutex_);
            overlaps_ = overlaps_ || std::exchange(isRendering_, true);
            renders_.push_back(render);
            changed_.notify_all();
            changed_.wait(lock, [&] { return ending_ || isReleased_; });
            ending = std::exchange(ending_, nullptr);
            isRendering_ = false;
        }
        if (!ending) throw CancellationError();
        return ending(*render);
    }

    /// The render that began as the `number`th, counted from 1. Waits until it has begun.
    std::shared_ptr<const Render> awaitRender(std::size_t number) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return renders_.size() >= number; });
        return renders_[number - 1];
    }

    /// Lets the render in progress, or else the next one, end this way.
    void end(Ending ending) {
        const std::lock_guard lock(mutex_);
        ending_ = std::move(ending);
        changed_.notify_all();
    }

    /// Lets every render end at once from now on, as cancelled.
    void release() {
        const std::lock_guard lock(mutex_);
        isReleased_ = true;
        changed_.notify_all();
    }

    /// How many renders have begun.
    std::size_t begun() const {
        const std::lock_guard lock(mutex_);
        return renders_.size();
    }

    /// Whether a render ever began before the one before it had ended.
    bool hasOverlapped() const {
        const std::lock_guard lock(mutex_);
        return overlaps_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<const Render>> renders_;  // guarded by mutex_, like all below
    Ending ending_;
    bool isRendering_ = false;
    bool overlaps_ = false;
    bool isReleased_ = false;
};

}  // namespace quillmere::test
