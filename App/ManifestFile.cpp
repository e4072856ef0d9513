#include "App/ManifestFile.hpp"

#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere::app {

std::filesystem::path manifestFile(const std::filesystem::path& folder) { return folder / "manifest.json"; }

std::optional<std::string> readManifestText(const std::filesystem::path& file) {
    constexpr std::size_t mostBytes = std::size_t{1} << 30;
    return readFileIfPresent(file, mostBytes);
}

std::vector<LoopArtifact> readManifest(const std::filesystem::path& file) {
    const auto text = readManifestText(file);
    return text ? JSONDocument::parse(*text).root().elements<LoopArtifact>() : std::vector<LoopArtifact>();
}

bool isLibraryRecord(std::string_view name) {
    return name.ends_with(".lock") || name.ends_with(".json") || name.starts_with("manifest.") ||
           name.starts_with("digests.") || isTemporaryFileName(name);
}

}  // namespace quillmere::app
