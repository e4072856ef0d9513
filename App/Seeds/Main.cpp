#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "App/EngineCommand.hpp"
#include "QuillmereKit/Generation/GenerationEngine.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Renderers/ProcessRenderer.hpp"

// Makes the pieces that ship with the host, so that a first start has music before anything was generated: the default
// mood, calm, balanced and energetic. Run by the build: quillmere-seeds FOLDER.
namespace quillmere::app {
namespace {

constexpr std::array<std::int64_t, 3> steps = {0, 2, 4};
constexpr std::int64_t firstSeed = 20'260'101;

std::vector<LoopArtifact> render(const std::shared_ptr<LoopStore>& store) {
    ProcessRenderer renderer(defaultEngineCommand(), store);
    const Mood& mood = MoodCatalog::defaultMood();
    const auto model = identityModel(GenerationEngine::mlx, GenerationModel::medium);
    std::vector<LoopArtifact> pieces;
    for (const std::int64_t step : steps) {
        const auto identity = mood.identity(BlendStep(step), firstSeed + step, model);
        pieces.push_back(renderer.render(identity.value(), trackSeconds, [](const FileURL&, double) {}, {}));
    }
    return pieces;
}

std::string seedList(const std::vector<LoopArtifact>& pieces) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginArray();
    for (const auto& piece : pieces) {
        writer.beginObject();
        writer.member("file", piece.identity.filename());
        writer.member("identity", piece.identity);
        writer.member("leadIn", piece.leadIn);
        writer.member("quality", piece.quality);
        writer.member("seamDB", piece.seamDB);
        writer.member("seconds", piece.seconds);
        writer.endObject();
    }
    writer.endArray();
    return writer.take();
}

void make(const std::filesystem::path& folder) {
    const auto work = folder / "Work";
    const auto loops = folder / "Loops";
    std::filesystem::remove_all(work);
    std::filesystem::remove_all(loops);
    createFolders(loops);
    {
        const auto store = std::make_shared<LoopStore>(work, ResourceBundle(work));
        const auto pieces = render(store);
        for (const auto& piece : pieces) {
            encodeALAC(piece.url, FileURL::fromPath(loops / (piece.identity.filename() + ".m4a")));
        }
        writeDurably(loops / "seeds.json", seedList(pieces));
    }
    std::filesystem::remove_all(work);
}

}  // namespace
}  // namespace quillmere::app

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) {
        std::fputs("usage: quillmere-seeds FOLDER\n", stderr);
        return 2;
    }
    try {
        quillmere::app::make(arguments[1]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quillmere-seeds: %s\n", error.what());
        return 1;
    }
}
