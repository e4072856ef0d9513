// A host for the tests to kill: renders one piece with the engine that its arguments name.
//
//     RendererTestHost LIBRARY ENGINE [ARGUMENT...]

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Renderers/ProcessRenderer.hpp"

int main(int count, char** arguments) {
    using namespace quillmere;
    if (count < 3) return 2;
    const std::filesystem::path library = arguments[1];
    const auto store =
        std::make_shared<LoopStore>(library, ResourceBundle(library / "none"), [](const FileURL&) { return false; });
    ProcessRenderer renderer(std::vector<std::string>(arguments + 2, arguments + count), store,
                             {.grace = std::chrono::milliseconds(100)});
    LoopIdentity identity;
    identity.moodID = "host";
    identity.model = "sa3_medium_mlx_v2";
    try {
        renderer.render(identity, 0.5, GenerationPace::fast, GenerationService::AudioHandler(), {}, {});
    } catch (const Error& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
