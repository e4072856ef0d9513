// The road of one request: a mood and a blend step become an identity, the queue hands it to a renderer, and the
// finished piece is filed in a library, where a player finds it.
//
//     road-of-one-request FOLDER ENGINE [ARGUMENT...]
//
// ENGINE is any program that speaks the engine protocol, such as quillmere-tonebed or ../engine.py.

#include <QuillmereKit/Generation/GenerationBackends.hpp>
#include <QuillmereKit/Generation/GenerationQueue.hpp>
#include <QuillmereKit/Moods/MoodCatalog.hpp>
#include <Renderers/ProcessRenderer.hpp>
#include <future>
#include <iostream>

using namespace quillmere;
using Progress = GenerationQueue::Progress;

int main(int count, char** arguments) try {
    if (count < 3) {
        std::cerr << "usage: road-of-one-request FOLDER ENGINE [ARGUMENT...]\n";
        return 2;
    }
    // What the listener chose becomes the exact description of one piece of music.
    const Mood& mood = MoodCatalog::defaultMood();
    const auto identity = mood.identity(BlendStep(1), 7, identityModel(GenerationModel::medium));

    // A library in a folder, and an engine that renders into it.
    const auto store = std::make_shared<LoopStore>(arguments[1]);
    const std::vector<std::string> command(arguments + 2, arguments + count);
    const auto backends = std::make_shared<GenerationBackends>();
    backends->registerService(std::make_shared<ProcessRenderer>(command, store), GenerationEngine::mlx);

    // The queue says how it goes; its handlers run on its own thread, and the last word ends our waiting.
    std::promise<std::string> failure;
    GenerationQueue queue(backends, store, 8);
    queue.observe([&](const Progress& progress) {
        const auto& value = progress.value();
        if (const auto* stage = std::get_if<Progress::Stage>(&value)) std::cerr << stage->stage.label() << '\n';
        if (const auto* failed = std::get_if<Progress::Failed>(&value)) failure.set_value(failed->message);
        if (std::holds_alternative<Progress::Finished>(value)) failure.set_value("");
    });
    queue.request(identity.value(), GenerationPace::fast);
    if (const auto message = failure.get_future().get(); !message.empty()) throw Error(message);
    if (const auto error = store->lastSaveError()) throw Error(*error);

    for (const LoopArtifact& piece : store->playbackPool(mood.id, std::nullopt, {})) {
        std::cout << piece.id() << "  " << piece.seconds << " s  " << piece.url.path().string() << '\n';
    }
} catch (const std::exception& error) {
    std::cerr << "road-of-one-request: " << error.what() << '\n';
    return 1;
}
