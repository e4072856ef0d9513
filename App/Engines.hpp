#pragma once

#include <memory>
#include <string>

#include "QuillmereKit/Generation/GenerationBackends.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"

namespace quillmere::app {

/// The engine that `command` starts (empty: the default engine), as the service of both engines of an identity; its
/// pieces go to the folder of `store`. Throws `Error` for a command that names no program.
[[nodiscard]] std::shared_ptr<GenerationBackends> enginesFor(const std::string& command,
                                                             const std::shared_ptr<LoopStore>& store);

}  // namespace quillmere::app
