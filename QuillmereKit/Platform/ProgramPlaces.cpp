#include "QuillmereKit/Platform/ProgramPlaces.hpp"

#include <dlfcn.h>

#include <string>
#include <system_error>

namespace quillmere::programPlaces {

using std::filesystem::path;

path program() {
    std::error_code error;
    const auto file = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? path() : file.parent_path();
}

path library() {
    // In a program the loader reports the name it was started by, which may be relative or found along PATH.
    Dl_info module{};
    static const int inThisModule = 0;
    if (::dladdr(&inThisModule, &module) == 0 || module.dli_fname == nullptr) return program();
    const path file = module.dli_fname;
    if (file.filename().native().find(".so") == std::string::npos) return program();
    std::error_code error;
    const auto whole = std::filesystem::canonical(file, error);
    return error ? program() : whole.parent_path();
}

bool isInBuildTree() { return (program() / "").native().starts_with(QUILLMERE_BUILD_TREE "/"); }

}  // namespace quillmere::programPlaces
