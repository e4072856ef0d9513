#pragma once

#include <string>

#include "QuillmereKit/Generation/GenerationQueue.hpp"

namespace quillmere::app {

/// One event as a line of JSON, without line end:
/// {"sequence": integer, "event": "stage" | "rendering" | "finished" | "failed" | "idle" | "stopping", ...}
[[nodiscard]] std::string jsonLine(const GenerationQueue::Event& event);

/// How far a render is at this stage, 0...1, as a progress bar shows it.
[[nodiscard]] double progressFraction(const GenerationStage& stage);

}  // namespace quillmere::app
