#include "App/Engines.hpp"

#include <utility>

#include "App/EngineCommand.hpp"
#include "Renderers/ProcessRenderer.hpp"

namespace quillmere::app {

std::shared_ptr<GenerationBackends> enginesFor(const std::string& command, const std::shared_ptr<LoopStore>& store) {
    auto words = command.empty() ? defaultEngineCommand() : splitCommand(command);
    if (words.empty()) throw Error("The engine command is empty.");
    ProcessRendererOptions options;
    if (auto chip = processorName(); !chip.empty()) options.origin = RecipeOrigin{std::move(chip)};
    const auto renderer = std::make_shared<ProcessRenderer>(std::move(words), store, std::move(options));
    auto engines = std::make_shared<GenerationBackends>();
    for (const GenerationEngine engine : allCases<GenerationEngine>()) engines->registerService(renderer, engine);
    return engines;
}

}  // namespace quillmere::app
