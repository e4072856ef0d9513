#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Platform/ResourceBundle.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {

/// The library of generated music on disk: one folder of audio files and a manifest that lists them.
///
/// Thread-safe: one plain mutex, held for the whole of each operation; `discard` runs under it and must not call back.
/// Blocks on disk: construction and every operation that changes something.
class LoopStore {
public:
    /// Removes a file or folder for the store; true on success.
    using Discard = std::function<bool(const FileURL&)>;

    /// The process-wide store, made on first use in the default folder.
    [[nodiscard]] static const std::shared_ptr<LoopStore>& shared();

    /// Opens the store in `directory` (default: "Loops" in the application's data folder). Never fails: what cannot be
    /// read is left out and kept.
    explicit LoopStore(std::optional<std::filesystem::path> directory = std::nullopt,
                       ResourceBundle bundle = ResourceBundle::main(), Discard discard = {});
    ~LoopStore();
    LoopStore(const LoopStore&) = delete;
    LoopStore& operator=(const LoopStore&) = delete;

    [[nodiscard]] const std::filesystem::path& directory() const noexcept;

    [[nodiscard]] std::optional<LoopArtifact> artifact(const LoopIdentity& identity) const;
    [[nodiscard]] bool contains(const LoopIdentity& identity) const;
    [[nodiscard]] std::size_t count() const;
    [[nodiscard]] std::size_t count(std::string_view moodID) const;

    /// Stores a piece and saves the manifest; a failed save is kept as `lastSaveError`.
    void add(LoopArtifact artifact);
    /// The same, but the manifest is durable when this returns. Throws `FileError`, `LibraryInUse` or `EncodingError`;
    /// the piece then stays in memory.
    void addPersistent(LoopArtifact artifact);
    /// Removes a stray file that no piece refers to; whether anything was removed.
    bool discardUnstored(const FileURL& url);
    void protectFromMigration(std::set<std::string> fingerprints, const UUID& owner);

    /// Why the last save failed, until one succeeds.
    [[nodiscard]] std::optional<std::string> lastSaveError() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillmere
