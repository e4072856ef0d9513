#include "App/Output.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "App/Terminal.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/Text.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere::app {

void printJSON(JSONWriter& writer) { std::printf("%s\n", safeJSON(writer.take()).c_str()); }

std::string jsonText(std::string_view text) { return isValidUTF8(text) ? std::string(text) : safeForTerminal(text); }

std::string pathText(const std::filesystem::path& path) { return jsonText(path.native()); }

std::filesystem::path absolutePath(const std::filesystem::path& named) {
    auto path = std::filesystem::absolute(named);
    if (std::ranges::find(path, "..") == path.end()) return path.lexically_normal();
    return path;  // "link/.." is not where the link lies
}

OutputFile::OutputFile(const std::filesystem::path& file, bool mayReplace)
    : file_(absolutePath(file)),
      temporary_(file_.parent_path() / (".quillmere-" + UUID::random().text() + ".part")),
      mayReplace_(mayReplace) {
    if (!file_.has_filename()) throw Error("\"" + file.string() + "\" is a folder. Name a file.");
    const auto facts = replacedFile::lookAt(file_);
    if (!facts) return;
    if (facts->kind != FileFacts::Kind::regular) {
        throw Error("\"" + file_.string() + "\" is no regular file, so nothing is written there.");
    }
    if (!mayReplace) throw Error("\"" + file_.string() + "\" exists. Add --force to replace it.");
}

OutputFile::~OutputFile() {
    std::error_code ignored;
    std::filesystem::remove(temporary_, ignored);
}

void OutputFile::moveIntoPlace() {
    if (!mayReplace_) return moveFile(temporary_, file_);
    // What stands there now counts, not what stood there when the work began.
    const auto facts = replacedFile::lookAt(file_);
    if (facts && facts->kind != FileFacts::Kind::regular) {
        throw FileError("rename", file_, FileFault::fileNotRegular);
    }
    if (facts) takePermissions();
    if (std::rename(temporary_.c_str(), file_.c_str()) != 0) {
        throw FileError("rename", file_, std::error_code(errno, std::system_category()));
    }
    syncFolder(file_.parent_path());
}

// The new file is as private as the one that it takes the place of.
void OutputFile::takePermissions() const {
    std::error_code error;
    const auto old = std::filesystem::status(file_, error);
    if (!error) std::filesystem::permissions(temporary_, old.permissions(), error);
    if (error) throw FileError("set permissions", file_, error);
    syncFile(temporary_);
}

void writeOutput(const std::filesystem::path& file, std::string_view bytes, bool mayReplace) {
    OutputFile output(file, mayReplace);
    writeDurably(output.temporary(), bytes);
    output.moveIntoPlace();
}

}  // namespace quillmere::app
