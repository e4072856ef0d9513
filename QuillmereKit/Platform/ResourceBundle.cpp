#include "QuillmereKit/Platform/ResourceBundle.hpp"

#include "QuillmereKit/Platform/ProgramPlaces.hpp"

#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace quillmere {
namespace {

using std::filesystem::path;

bool isFolder(const path& folder) noexcept {
    std::error_code ignored;
    return std::filesystem::is_directory(folder, ignored);
}

std::optional<path> variable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return path(value);
}

}  // namespace

ResourceBundle::ResourceBundle(path folder) : folder_(std::move(folder)) {}

ResourceBundle ResourceBundle::main() {
    if (const auto named = variable("QUILLMERE_RESOURCES")) return ResourceBundle(*named);
    const auto beside = programPlaces::program();
    auto installed = (beside / "../share/quillmere").lexically_normal();
    return ResourceBundle(isFolder(installed) ? std::move(installed) : beside / "Resources");
}

ResourceBundle ResourceBundle::library() {
    if (const auto named = variable("QUILLMERE_KIT_RESOURCES")) return ResourceBundle(*named);
    // From "bin" and "lib" the shared files are one step up, from "lib/x86_64-linux-gnu" two.
    const auto beside = programPlaces::library();
    std::vector<path> places = {(beside / "../share/quillmerekit").lexically_normal(),
                                (beside / "../../share/quillmerekit").lexically_normal()};
    if (programPlaces::isInBuildTree()) places.emplace_back(QUILLMERE_SOURCE_RESOURCES);
    for (const auto& place : places) {
        if (isFolder(place)) return ResourceBundle(place);
    }
    return ResourceBundle(path(QUILLMERE_INSTALLED_RESOURCES));
}

std::optional<path> ResourceBundle::resource(std::string_view name, std::string_view extension,
                                             std::string_view subfolder) const {
    const auto isOneName = [](std::string_view text) {
        return text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos && text != "..";
    };
    if (name.empty() || !isOneName(name) || !isOneName(extension) || !isOneName(subfolder)) return std::nullopt;

    path file = subfolder.empty() ? folder_ : folder_ / subfolder;
    file /= std::string(name) + (extension.empty() ? "" : "." + std::string(extension));
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) return std::nullopt;
    if (!std::filesystem::is_symlink(file, error)) return file;
    auto target = std::filesystem::canonical(file, error);
    if (error) return std::nullopt;
    return target;
}

}  // namespace quillmere
