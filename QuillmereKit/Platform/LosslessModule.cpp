#include "QuillmereKit/Platform/LosslessModule.hpp"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "QuillmereKit/Platform/ProgramPlaces.hpp"

namespace quillmere {
namespace {

using std::filesystem::path;

constexpr const char* moduleName = "QuillmereLossless.so";

// Where the module may lie, in the order of looking: named by the environment and then nowhere else, beside the running
// program, in the installation of the program or the library, in the build tree, where it was to be installed.
std::vector<path> places() {
    if (const char* named = std::getenv("QUILLMERE_LOSSLESS_MODULE"); named != nullptr && *named != '\0')
        return {named};
    std::vector<path> places;
    if (const auto program = programPlaces::program(); !program.empty()) {
        places.push_back(program / moduleName);
        places.push_back(program.parent_path() / QUILLMERE_LIBRARY_FOLDER / "quillmere" / moduleName);
    }
    places.push_back(programPlaces::library() / "quillmere" / moduleName);
    if (programPlaces::isInBuildTree()) places.push_back(path(QUILLMERE_BUILT_MODULES) / moduleName);
    places.push_back(path(QUILLMERE_INSTALLED_MODULES) / moduleName);
    return places;
}

const LosslessModule& load() {
    std::string reason = std::string(moduleName) + " is not installed.";
    for (const path& place : places()) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(place, error)) continue;
        // Never unloaded: readers may live as long as the process.
        void* const handle = ::dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* const text = ::dlerror();
            reason = text != nullptr ? text : place.native();
            continue;
        }
        using Function = const LosslessModule*();
        auto* const function = reinterpret_cast<Function*>(::dlsym(handle, losslessModuleFunction));
        const LosslessModule* const module = function != nullptr ? function() : nullptr;
        if (module != nullptr && module->version == LosslessModule::currentVersion) return *module;
        reason = "\"" + place.native() + "\" belongs to another version.";
    }
    throw LosslessUnavailable(reason);
}

}  // namespace

LosslessUnavailable::LosslessUnavailable(const std::string& reason)
    : Error("Apple Lossless files cannot be read or written: " + reason) {}

const LosslessModule& losslessModule() {
    static const LosslessModule& module = load();
    return module;
}

}  // namespace quillmere
