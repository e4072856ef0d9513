#include "QuillmereKit/Library/FileSHA256.hpp"

#include <cstddef>
#include <string_view>

#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/PageAligned.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"

namespace quillmere::FileSHA256 {

std::string digest(const FileURL& url) {
    // Small enough to stay in the processor's cache between reading and hashing, and to need no fresh pages.
    constexpr std::size_t chunk = std::size_t{1} << 16;
    const auto path = url.path();
    const Descriptor file = openRegularFile(path, FinalLink::followed);
    PageAligned<char> buffer(chunk);
    SHA256 hash;
    while (true) {
        const auto count = systemCalls::readUpTo(file.number(), buffer, path);
        hash.update(std::string_view(buffer.data(), count));
        if (count < chunk) break;
    }
    return hexadecimal(hash.finish());
}

}  // namespace quillmere::FileSHA256
