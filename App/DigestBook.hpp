#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "App/KnownFile.hpp"

namespace quillmere::app {

/// What the samples of the library's pieces were when they were made: the file "digests.json" in the library's folder.
///
///     {"digests": {fingerprint: AudioPCM digest}, "version": 1}
///
/// It is written when a piece is generated and when one is migrated, and read to prove later that the audio is still
/// the same. A damaged file, or one of which entries were dropped, is kept beside the new one before it is replaced.
/// One that the disk would not give is read again before it is replaced, and stays as it is if it still cannot be read.
///
/// Only the holder of the library's lock (`.lock` in its folder) may save: that keeps two programs apart, and so this
/// file has no lock of its own. What another one wrote before is taken in. Not thread-safe. Blocks on disk.
class DigestBook {
public:
    /// The most digests that are kept. Beyond it, those of pieces that the library no longer holds go first.
    static constexpr std::size_t mostDigests = 500'000;

    /// The file's name in the library's folder.
    static constexpr std::string_view fileName = "digests.json";

    /// Reads the file in a library's folder. Never fails: a missing or unreadable one holds no digest.
    explicit DigestBook(const std::filesystem::path& folder);

    [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_.path(); }

    /// Why the file, or a part of it, could not be read.
    [[nodiscard]] const std::optional<std::string>& problem() const noexcept { return problem_; }

    /// The digest of a piece, where there is one.
    [[nodiscard]] std::optional<std::string> digest(std::string_view fingerprint) const;

    /// Notes a piece's digest, 64 lower-case hexadecimal characters, in place of an earlier one.
    void set(std::string_view fingerprint, std::string digest);

    /// Forgets a piece that is gone for good.
    void forget(std::string_view fingerprint);

    /// Writes the file durably if what was noted changes it. `isStored` says whether the library holds a piece. Throws
    /// `FileError`; the file is then as it was, unless the error says that it is in place, and the next save tries
    /// again.
    void save(const std::function<bool(const std::string& fingerprint)>& isStored);

private:
    using Digests = std::map<std::string, std::string, std::less<>>;  // by fingerprint

    void catchUp();
    [[nodiscard]] Digests changed() const;

    KnownFile file_;
    Digests digests_;  // in the file, as last read or written
    std::map<std::string, std::optional<std::string>, std::less<>>
        changes_;  // noted since; nothing for a forgotten one
    std::optional<std::string> problem_;
    std::string_view reasonToKeep_;  // why the file must be kept aside before it is replaced; empty if it need not
};

}  // namespace quillmere::app
