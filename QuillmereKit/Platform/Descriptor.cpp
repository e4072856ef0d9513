#include "QuillmereKit/Platform/Descriptor.hpp"

#include <unistd.h>

#include <cerrno>

namespace quillmere {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        static_cast<void>(close());
        number_ = other.release();
    }
    return *this;
}

Descriptor::~Descriptor() { static_cast<void>(close()); }

std::error_code Descriptor::close() noexcept {
    const int number = release();
    // Linux frees the descriptor before it reports an interruption; closing again would hit a stranger's.
    if (number < 0 || ::close(number) == 0 || errno == EINTR) return {};
    return {errno, std::system_category()};
}

}  // namespace quillmere
