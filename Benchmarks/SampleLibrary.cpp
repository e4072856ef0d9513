#include "Benchmarks/SampleLibrary.hpp"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere::benchmarks {
namespace {

// The files stay that are there; what is new is on the disk.
void fillLibrary(const std::filesystem::path& folder, std::size_t count) {
    std::vector<LoopArtifact> pieces;
    pieces.reserve(count);
    bool isMissing = false;
    for (std::size_t i = 0; i < count; ++i) {
        pieces.push_back(samplePiece(folder, i));
        const auto file = pieces.back().url.path();
        if (fileExists(file)) continue;
        std::ofstream(file) << "RIFF";
        isMissing = true;
    }
    if (isMissing) ::sync();
    writeDurably(folder / "manifest.json", encodeJSON(pieces, JSONWriter::Form::compact));
}

// Folders that go with the process, or stay for the next one in the folder that the environment names.
class Libraries {
public:
    Libraries() = default;
    Libraries(const Libraries&) = delete;
    Libraries& operator=(const Libraries&) = delete;
    ~Libraries() {
        if (kept_) return;
        std::error_code ignored;
        for (const auto& [name, folder] : folders_) std::filesystem::remove_all(folder, ignored);
    }

    const std::filesystem::path& folder(const std::string& name, std::size_t count) {
        auto& folder = folders_[name];
        if (folder.empty()) folder = kept_ ? kept(name, count) : makeLibrary(count);
        return folder;
    }

private:
    [[nodiscard]] std::filesystem::path kept(const std::string& name, std::size_t count) const {
        auto folder = std::filesystem::path(kept_) / name;
        std::filesystem::create_directories(folder);
        if (!fileExists(folder / "manifest.json")) fillLibrary(folder, count);  // which is written last
        return folder;
    }

    std::map<std::string, std::filesystem::path> folders_;
    const char* const kept_ = std::getenv("QUILLMERE_BENCHMARK_LIBRARIES");
};

Libraries& libraries() {
    static Libraries all;
    return all;
}

}  // namespace

std::string sampleMood(std::size_t index) {
    const auto number = index / piecesPerMood;
    const auto& id = MoodCatalog::defaultMood().id;
    return number == 0 ? id : id + "-" + std::to_string(number);
}

LoopArtifact samplePiece(const std::filesystem::path& folder, std::size_t index) {
    const auto blend = BlendStep(static_cast<std::int64_t>(index % 5));
    auto identity = *MoodCatalog::defaultMood().identity(blend, static_cast<std::int64_t>(index), "sa3_medium_mlx_v2");
    identity.moodID = sampleMood(index);
    const double variation = static_cast<double>(index % 997) / 997;
    LoopQuality quality{.brightness = 0.3 + variation / 8, .makeupDB = 1 - variation};
    quality.loudness =
        AudioLoudness{.integratedLUFS = -18 + variation, .peak = 0.5 + variation / 4, .seconds = trackSeconds};
    const auto file = folder / (identity.filename() + ".wav");
    return {.identity = std::move(identity),
            .url = FileURL::fromPath(file),
            .seconds = trackSeconds,
            .seamDB = -60 - variation,
            .quality = quality,
            .engineBuild = "tonebed-1",
            .origin = RecipeOrigin{"Example CPU at 3.00 GHz"}};
}

std::filesystem::path makeLibrary(std::size_t count) {
    const auto folder = std::filesystem::temp_directory_path() / ("quillmere-benchmark-" + UUID::random().text());
    std::filesystem::create_directories(folder);
    fillLibrary(folder, count);
    return folder;
}

const std::filesystem::path& sampleLibrary(std::size_t count) {
    return libraries().folder(std::to_string(count), count);
}

const std::filesystem::path& changingLibrary(std::size_t count) {
    const auto& folder = libraries().folder(std::to_string(count) + "-changing", count);
    fillLibrary(folder, count);
    return folder;
}

std::shared_ptr<LoopStore> openLibrary(const std::filesystem::path& folder) {
    const auto remove = [](const FileURL& url) { return std::filesystem::remove(url.path()); };
    return std::make_shared<LoopStore>(folder, ResourceBundle(folder / "no resources"), remove);
}

}  // namespace quillmere::benchmarks
