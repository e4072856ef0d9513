#include "App/DigestBook.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {
namespace {

// An entry takes 94 bytes.
constexpr std::size_t mostBytes = std::size_t{64} << 20;
static_assert(DigestBook::mostDigests * 94 < mostBytes);

bool isHexadecimal(std::string_view text, std::size_t length) {
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return text.size() == length && std::ranges::all_of(text, isDigit);
}

}  // namespace

DigestBook::DigestBook(const std::filesystem::path& folder) : file_(folder / fileName) { load(); }

void DigestBook::load() {
    try {
        const auto text = readFileIfPresent(file_, mostBytes);
        if (!text) return;
        const auto document = JSONDocument::parse(*text);
        static_cast<void>(document.root().member<std::int64_t>("version"));
        const auto digests = document.root().find("digests");
        if (!digests) throw JSONError("is missing", "digests");
        std::size_t dropped = 0;
        for (const auto& [fingerprint, value] : digests->members()) {
            const bool isDigest =
                isHexadecimal(fingerprint, 16) && value.isString() && isHexadecimal(value.string(), 64);
            if (!isDigest || !digests_.try_emplace(std::string(fingerprint), value.string()).second) ++dropped;
        }
        if (dropped == 0) return;
        reasonToKeep_ = "before";
        problem_ = std::to_string(dropped) + " of the digests in \"" + file_.string() + "\" cannot be read.";
    } catch (const Error& error) {
        digests_.clear();
        reasonToKeep_ = "unreadable";
        problem_ = "The digests \"" + file_.string() + "\" cannot be read: " + error.what();
    }
}

std::optional<std::string> DigestBook::digest(std::string_view fingerprint) const {
    const auto found = digests_.find(fingerprint);
    return found == digests_.end() ? std::nullopt : std::optional(found->second);
}

void DigestBook::set(std::string_view fingerprint, std::string digest) {
    auto& place = digests_[std::string(fingerprint)];
    if (place == digest) return;
    place = std::move(digest);
    isChanged_ = true;
}

void DigestBook::forget(std::string_view fingerprint) {
    const auto found = digests_.find(fingerprint);
    if (found == digests_.end()) return;
    digests_.erase(found);
    isChanged_ = true;
}

void DigestBook::save(const std::function<bool(const std::string&)>& isStored) {
    if (!isChanged_) return;
    if (digests_.size() > mostDigests) {
        std::erase_if(digests_, [&](const auto& entry) { return !isStored(entry.first); });
    }
    if (digests_.size() > mostDigests) {
        throw FileError("write", file_, std::make_error_code(std::errc::file_too_large));
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("version", 1);
    writer.key("digests");
    writer.beginObject();
    for (const auto& [fingerprint, digest] : digests_) writer.member(fingerprint, digest);
    writer.endObject();
    writer.endObject();
    const auto text = writer.take();

    if (!reasonToKeep_.empty() && fileExists(file_)) {
        keepCopyAside(file_, reasonToKeep_,
                      std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now()));
    }
    reasonToKeep_ = {};
    writeDurably(file_, text);
    isChanged_ = false;
}

}  // namespace quillmere::app
