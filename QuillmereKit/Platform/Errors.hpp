#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace quillmere {

/// The root of everything the library throws. `what()` is a sentence that can be shown to the user.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The work was cancelled through its `std::stop_token`. Never reported onward as a failure.
class CancellationError : public Error {
public:
    CancellationError() : Error("The operation was cancelled.") {}
};

/// What can be wrong with a file beyond what the operating system reports.
enum class FileFault {
    fileReadCorruptFile = 1,  ///< The content is not what it must be: damaged, short, or of another format.
    fileWriteUnknown,         ///< What was written could not be proved or recorded.
    fileReadTooLarge,         ///< The file is larger than the reader's limit.
    fileNotRegular,           ///< Not a regular file: a folder, a link, a device, a fifo.
    fileNotOwn,               ///< Somebody else's file where one of the library's own should be.
};

/// `FileFault` as a standard error code.
std::error_code make_error_code(FileFault fault) noexcept;

/// A file could not be read or written: the step that failed, the file and the cause.
class FileError : public Error {
public:
    /// `step` is what was tried, as a verb: "open", "write", "fsync", "rename", "sync folder", ...
    FileError(std::string step, std::filesystem::path path, std::error_code code);

    /// What was tried.
    [[nodiscard]] const std::string& step() const noexcept { return step_; }
    /// The file.
    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    /// The cause.
    [[nodiscard]] const std::error_code& code() const noexcept { return code_; }

    /// True when a durable write failed only in its last step, the folder's sync: the file already
    /// holds the new content, but may lose it in a power cut. Memory must follow the file.
    [[nodiscard]] bool isInPlace() const noexcept { return isInPlace_; }
    /// A copy whose `isInPlace()` is true.
    [[nodiscard]] FileError inPlace() const {
        FileError copy = *this;
        copy.isInPlace_ = true;
        return copy;
    }
    /// A copy whose `isInPlace()` is false: for an operation of which the failed write was only a part.
    [[nodiscard]] FileError notInPlace() const { return {step_, path_, code_}; }

private:
    std::string step_;
    std::filesystem::path path_;
    std::error_code code_;
    bool isInPlace_ = false;
};

/// A value cannot be written as JSON: a non-finite number, or text that is not UTF-8.
class EncodingError : public Error {
public:
    using Error::Error;
};

/// A text is not the JSON that was asked for: malformed, a key missing, a value of the wrong type.
class JSONError : public Error {
public:
    /// `path` names the place, such as "recipes[3].identity.seed"; empty for the whole text.
    explicit JSONError(std::string reason, std::string path = {});

    /// What is wrong, without the place.
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }
    /// The place of the value, from the outermost level seen so far.
    [[nodiscard]] const std::string& path() const noexcept { return path_; }

    /// The same error, seen from one level further out.
    [[nodiscard]] JSONError inMember(std::string_view key) const;
    /// The same for an element of an array.
    [[nodiscard]] JSONError inElement(std::size_t index) const;

private:
    std::string reason_;
    std::string path_;
};

}  // namespace quillmere

template <>
struct std::is_error_code_enum<quillmere::FileFault> : std::true_type {};
