#include "Renderers/SupervisorProgram.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace quillmere {
namespace {

constexpr std::string_view programName = "quillmere-supervisor";

bool isExecutable(const std::filesystem::path& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(file.c_str(), X_OK) == 0;
}

}  // namespace

std::optional<std::filesystem::path> findSupervisorProgram() {
    std::vector<std::filesystem::path> places;
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        const auto folder = program.parent_path();
        places.push_back(folder / programName);
        places.push_back(folder.parent_path() / "libexec" / "quillmere" / programName);
        // Only for a program of that tree: who runs an installed one must get the installed supervisor.
        if (program.native().starts_with(QUILLMERE_BUILD_TREE "/")) places.emplace_back(QUILLMERE_BUILT_SUPERVISOR);
    }
    places.push_back(std::filesystem::path(QUILLMERE_INSTALLED_LIBEXEC) / programName);
    for (const auto& place : places) {
        if (isExecutable(place)) return place;
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> findProgram(const std::filesystem::path& name) {
    if (name.empty()) return std::nullopt;
    if (name.native().find('/') != std::string::npos) {
        std::error_code error;
        const auto path = std::filesystem::absolute(name, error);
        return !error && isExecutable(path) ? std::optional(path) : std::nullopt;
    }
    const char* variable = std::getenv("PATH");
    std::string_view folders = variable != nullptr ? variable : "/usr/local/bin:/usr/bin:/bin";
    while (!folders.empty()) {
        const auto end = folders.find(':');
        const std::filesystem::path folder(folders.substr(0, end));
        // A relative folder in PATH would mean another program from each current folder.
        if (folder.is_absolute() && isExecutable(folder / name)) return folder / name;
        folders = end == std::string_view::npos ? std::string_view() : folders.substr(end + 1);
    }
    return std::nullopt;
}

}  // namespace quillmere
