#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere {

/// A fingerprint as a number: the 16 hexadecimal digits read as one. Its order is that of the texts.
struct LoopKey {
    std::uint64_t value = 0;

    /// The key of an identity. Computes the fingerprint.
    [[nodiscard]] static LoopKey of(const LoopIdentity& identity);

    /// The key that a fingerprint's text names, or nothing if it is no fingerprint.
    [[nodiscard]] static std::optional<LoopKey> fromText(std::string_view text) noexcept;

    /// The fingerprint's text.
    [[nodiscard]] std::string text() const;

    friend auto operator<=>(const LoopKey&, const LoopKey&) = default;
};

/// Texts that many pieces have in common, each kept once. Not thread-safe.
class SharedTexts {
public:
    using Text = std::shared_ptr<const std::string>;

    /// The one copy of `text`.
    [[nodiscard]] Text share(std::string_view text);
    /// The same, or null for no text.
    [[nodiscard]] Text shareIfPresent(const std::optional<std::string>& text);

    /// Forgets the texts that nobody holds any more.
    void sweep() noexcept;

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
        std::size_t operator()(const Text& text) const noexcept { return (*this)(std::string_view(*text)); }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Text& a, const Text& b) const noexcept { return *a == *b; }
        bool operator()(std::string_view a, const Text& b) const noexcept { return a == *b; }
        bool operator()(const Text& a, std::string_view b) const noexcept { return *a == b; }
    };
    std::unordered_set<Text, Hash, Equal> texts_;
};

/// A `LoopArtifact` as the store keeps it: the prompts, names and model strings that the pieces of a mood have in
/// common are held once for all of them, which halves the memory of a large library.
struct StoredLoop {
    StoredLoop(LoopKey loopKey, LoopArtifact artifact, SharedTexts& texts);

    /// The artifact, equal in every field to the one that was stored.
    [[nodiscard]] LoopArtifact artifact() const;
    [[nodiscard]] LoopIdentity identity() const;

    [[nodiscard]] bool isRecording() const noexcept { return audio && audio->kind == AudioUse::Kind::recording; }

    LoopKey key;
    SharedTexts::Text moodID;
    SharedTexts::Text calmPrompt;
    SharedTexts::Text energeticPrompt;
    SharedTexts::Text model;
    SharedTexts::Text prompt;       // null when absent
    SharedTexts::Text engineBuild;  // null when absent
    SharedTexts::Text chip;         // null when the piece has no origin
    std::unique_ptr<const AudioUse> audio;
    BlendStep blend;
    std::int64_t seed;
    std::int64_t recipe;
    FileURL url;
    double seconds;
    std::optional<double> seamDB;
    std::optional<double> leadIn;
    std::optional<LoopQuality> quality;

    bool isInside = false;    // its URL names a file inside the store's folder
    bool isPlain = false;     // and a regular file directly in it, in the plainest spelling
    bool isEncodable = true;  // it can be written as JSON
    bool isLeaving = false;   // it is about to be removed

    // Where the entry's text stands in the manifest's; a length of 0 means that it has to be written anew.
    std::uint32_t textLength = 0;
    std::uint64_t textStart = 0;
};

}  // namespace quillmere

template <>
struct std::hash<quillmere::LoopKey> {
    // A fingerprint is part of a digest: its bits are as good as any hash of them.
    std::size_t operator()(const quillmere::LoopKey& key) const noexcept { return static_cast<std::size_t>(key.value); }
};
