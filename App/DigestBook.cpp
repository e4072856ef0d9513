#include "App/DigestBook.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"

namespace quillmere::app {
namespace {

// An entry takes 94 bytes.
constexpr std::size_t mostBytes = std::size_t{64} << 20;
static_assert(DigestBook::mostDigests * 94 < mostBytes);

bool isHexadecimal(std::string_view text, std::size_t length) {
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return text.size() == length && std::ranges::all_of(text, isDigit);
}

std::string cannotBeRead(const std::filesystem::path& file, const Error& error) {
    return "The digests \"" + file.string() + "\" cannot be read: " + error.what();
}

/// The digests of a file by fingerprint, and how many entries of another form it has. Throws `JSONError`.
std::map<std::string, std::string, std::less<>> digestsIn(std::string_view text, std::size_t& dropped) {
    std::map<std::string, std::string, std::less<>> digests;
    const auto document = JSONDocument::parse(text);
    static_cast<void>(document.root().member<std::int64_t>("version"));
    const auto list = document.root().find("digests");
    if (!list) throw JSONError("is missing", "digests");
    for (const auto& [fingerprint, value] : list->members()) {
        const bool isDigest = isHexadecimal(fingerprint, 16) && value.isString() && isHexadecimal(value.string(), 64);
        if (!isDigest || !digests.try_emplace(std::string(fingerprint), value.string()).second) ++dropped;
    }
    return digests;
}

std::string textOf(const std::map<std::string, std::string, std::less<>>& digests) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("version", 1);
    writer.key("digests");
    writer.beginObject();
    for (const auto& [fingerprint, digest] : digests) writer.member(fingerprint, digest);
    writer.endObject();
    writer.endObject();
    return writer.take();
}

}  // namespace

DigestBook::DigestBook(const std::filesystem::path& folder) : file_(folder / fileName) {
    try {
        catchUp();
    } catch (const FileError& error) {
        problem_ = cannotBeRead(file(), error);  // the first save asks again
    }
}

// Takes in what the file holds, unless that is known. Where it is gone or damaged, what is known of it stands. Throws
// `FileError` where it cannot be read now.
void DigestBook::catchUp() {
    const auto take = [&](std::string_view text) {
        std::size_t dropped = 0;
        digests_ = digestsIn(text, dropped);
        problem_.reset();
        reasonToKeep_ = dropped > 0 ? "before" : "";
        if (dropped > 0) {
            problem_ = std::to_string(dropped) + " of the digests in \"" + file().string() + "\" cannot be read.";
        }
    };
    const auto noteDamage = [&](const Error& error) {
        problem_ = cannotBeRead(file(), error);
        reasonToKeep_ = "unreadable";
    };
    file_.catchUp(mostBytes, take, noteDamage);
}

std::optional<std::string> DigestBook::digest(std::string_view fingerprint) const {
    const auto change = changes_.find(fingerprint);
    if (change != changes_.end()) return change->second;
    const auto found = digests_.find(fingerprint);
    return found == digests_.end() ? std::nullopt : std::optional(found->second);
}

void DigestBook::set(std::string_view fingerprint, std::string digest) {
    changes_.insert_or_assign(std::string(fingerprint), std::move(digest));
}

void DigestBook::forget(std::string_view fingerprint) {
    changes_.insert_or_assign(std::string(fingerprint), std::nullopt);
}

DigestBook::Digests DigestBook::changed() const {
    Digests next = digests_;
    for (const auto& [fingerprint, digest] : changes_) {
        if (digest) {
            next.insert_or_assign(fingerprint, *digest);
        } else {
            next.erase(fingerprint);
        }
    }
    return next;
}

void DigestBook::save(const std::function<bool(const std::string&)>& isStored) {
    if (changes_.empty() && !file_.isUnsynced()) return;
    catchUp();
    Digests next = changed();
    if (next == digests_ && !file_.isUnsynced()) {
        changes_.clear();
        return;
    }
    if (next.size() > mostDigests) std::erase_if(next, [&](const auto& entry) { return !isStored(entry.first); });
    if (next.size() > mostDigests) {
        throw FileError("write", file(), std::make_error_code(std::errc::file_too_large));
    }
    const auto text = textOf(next);

    if (!reasonToKeep_.empty()) {
        const auto now = std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
        try {
            replacedFile::keep(file(), reasonToKeep_, now);
        } catch (const FileError& error) {
            throw error.notInPlace();
        }
    }
    reasonToKeep_ = {};
    // From here on nothing but the writing can fail.
    file_.write(text, [&]() noexcept {
        digests_ = std::move(next);
        changes_.clear();
        problem_.reset();
    });
}

}  // namespace quillmere::app
