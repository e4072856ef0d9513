#include "QuillmereKit/Platform/Precondition.hpp"

#include <cstdio>
#include <cstdlib>

namespace quillmere {

void fatalError(std::string_view message, const char* file, int line) noexcept {
    std::fflush(stdout);
    std::fprintf(stderr, "%s:%d: Fatal error: %.*s\n", file, line, static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
}

}  // namespace quillmere
