#include "App/KnownFile.hpp"

#include <utility>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"

namespace quillmere::app {

KnownFile::KnownFile(std::filesystem::path path) : path_(std::move(path)) {}

void KnownFile::catchUp(std::size_t mostBytes, const std::function<void(std::string_view)>& take,
                        const std::function<void(const Error&)>& noteDamage) {
    const auto facts = replacedFile::lookAt(path_);
    if (!facts || facts == facts_) return;
    try {
        const auto text = readFileIfPresent(path_, mostBytes);
        if (!text) return;
        take(*text);
    } catch (const FileError& error) {
        if (!replacedFile::isForGood(error)) throw;
        noteDamage(error);
    } catch (const JSONError& error) {
        noteDamage(error);
    }
    facts_ = facts;
}

void KnownFile::write(std::string_view text, const std::function<void()>& follow) {
    try {
        writeDurably(path_, text);
    } catch (const FileError& error) {
        if (error.isInPlace()) {
            follow();
            facts_.reset();
            isUnsynced_ = true;
        }
        throw;
    }
    follow();
    facts_ = factsOf(path_);
    isUnsynced_ = false;
}

}  // namespace quillmere::app
