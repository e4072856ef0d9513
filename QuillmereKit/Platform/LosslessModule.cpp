#include "QuillmereKit/Platform/LosslessModule.hpp"

#include <dlfcn.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {
namespace {

using std::filesystem::path;

constexpr const char* moduleName = "QuillmereLossless.so";

// Where the module may lie, in the order of looking: named by the environment, beside the running program or the shared
// library, in an installation, in the build tree.
std::vector<path> places() {
    if (const char* named = std::getenv("QUILLMERE_LOSSLESS_MODULE"); named != nullptr && *named != '\0')
        return {named};
    std::vector<path> places;
    std::error_code error;
    if (const auto program = std::filesystem::read_symlink("/proc/self/exe", error); !error) {
        places.push_back(program.parent_path() / moduleName);
        places.push_back(program.parent_path() / "../lib/quillmere" / moduleName);
    }
    places.emplace_back(path(QUILLMERE_INSTALLED_MODULES) / moduleName);
    places.emplace_back(path(QUILLMERE_BUILT_MODULES) / moduleName);
    return places;
}

const LosslessModule& load() {
    for (const path& place : places()) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(place, error)) continue;
        // Never unloaded: readers may live as long as the process.
        void* const handle = ::dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) continue;
        using Function = const LosslessModule*();
        auto* const function = reinterpret_cast<Function*>(::dlsym(handle, losslessModuleFunction));
        if (function == nullptr) continue;
        const LosslessModule* const module = function();
        if (module != nullptr && module->version == LosslessModule::currentVersion) return *module;
    }
    throw FileError("load the lossless codec from", moduleName,
                    std::make_error_code(std::errc::no_such_file_or_directory));
}

}  // namespace

const LosslessModule& losslessModule() {
    static const LosslessModule& module = load();
    return module;
}

}  // namespace quillmere
