#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere {
namespace {

class FileFaultCategory final : public std::error_category {
public:
    [[nodiscard]] const char* name() const noexcept override { return "quillmere.file"; }

    [[nodiscard]] std::string message(int value) const override {
        switch (static_cast<FileFault>(value)) {
            case FileFault::fileReadCorruptFile: return "The file is damaged or of another format.";
            case FileFault::fileWriteUnknown: return "What was written could not be confirmed.";
            case FileFault::fileReadTooLarge: return "The file is too large.";
            case FileFault::fileNotRegular: return "This is not a regular file.";
            case FileFault::fileNotOwn: return "The file is left alone: it holds something else.";
        }
        return "Unknown file fault " + std::to_string(value) + ".";
    }
};

std::string sentence(const std::string& step, const std::filesystem::path& path, const std::error_code& code) {
    return "Could not " + step + " \"" + path.native() + "\": " + code.message();
}

std::string sentence(const std::string& reason, const std::string& path) {
    return path.empty() ? reason : path + ": " + reason;
}

}  // namespace

std::error_code make_error_code(FileFault fault) noexcept {
    static const FileFaultCategory category;
    return {static_cast<int>(fault), category};
}

FileError::FileError(std::string step, std::filesystem::path path, std::error_code code)
    : Error(sentence(step, path, code)), step_(std::move(step)), path_(std::move(path)), code_(code) {}

JSONError::JSONError(std::string reason, std::string path)
    : Error(sentence(reason, path)), reason_(std::move(reason)), path_(std::move(path)) {}

JSONError JSONError::inMember(std::string_view key) const {
    std::string path(key);
    if (!path_.empty() && !path_.starts_with('[')) path += '.';
    return JSONError(reason_, path + path_);
}

JSONError JSONError::inElement(std::size_t index) const {
    std::string path = '[' + std::to_string(index) + ']';
    if (!path_.empty() && !path_.starts_with('[')) path += '.';
    return JSONError(reason_, path + path_);
}

}  // namespace quillmere
