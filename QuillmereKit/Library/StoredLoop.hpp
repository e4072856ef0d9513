#pragma once

#include <array>
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
    struct Held {
        std::string text;
        mutable bool isUsed = false;  // as far as a sweep has seen
    };

public:
    /// A kept text, or none. Lives until the texts go, or a sweep that does not find it used.
    class Text {
    public:
        Text() = default;
        explicit operator bool() const noexcept { return held_ != nullptr; }
        const std::string& operator*() const noexcept { return held_->text; }
        friend bool operator==(const Text&, const Text&) = default;

    private:
        friend class SharedTexts;
        explicit Text(const Held* held) noexcept : held_(held) {}
        const Held* held_ = nullptr;
    };

    /// The one copy of `text`.
    [[nodiscard]] Text share(std::string_view text);
    /// The same, or none for no text.
    [[nodiscard]] Text shareIfPresent(const std::optional<std::string>& text);

    /// Notes for the next sweep that a text is in use.
    static void use(Text text) noexcept {
        if (text) text.held_->isUsed = true;
    }

    /// Forgets the texts that are not noted as used.
    void sweep() noexcept;

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
        std::size_t operator()(const Held& held) const noexcept { return (*this)(std::string_view(held.text)); }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Held& a, const Held& b) const noexcept { return a.text == b.text; }
        bool operator()(std::string_view a, const Held& b) const noexcept { return a == b.text; }
        bool operator()(const Held& a, std::string_view b) const noexcept { return a.text == b; }
    };
    std::unordered_set<Held, Hash, Equal> texts_;
    std::array<Text, 32> recent_;  // by length: pieces that follow one another are alike
};

/// A `LoopArtifact` as the store keeps it: the prompts, names and model strings that the pieces of a mood have in
/// common are held once for all of them, which halves the memory of a large library.
struct StoredLoop {
    /// Takes the artifact's URL and guide audio away; copies or shares the rest.
    StoredLoop(LoopKey loopKey, LoopArtifact&& artifact, SharedTexts& texts);

    /// The artifact, equal in every field to the one that was stored.
    [[nodiscard]] LoopArtifact artifact() const;
    [[nodiscard]] LoopIdentity identity() const;

    /// Notes the piece's shared texts as used.
    void useTexts() const noexcept;

    [[nodiscard]] bool isRecording() const noexcept { return audio && audio->kind == AudioUse::Kind::recording; }

    LoopKey key;
    SharedTexts::Text moodID;
    SharedTexts::Text calmPrompt;
    SharedTexts::Text energeticPrompt;
    SharedTexts::Text model;
    SharedTexts::Text prompt;       // none when absent
    SharedTexts::Text engineBuild;  // none when absent
    SharedTexts::Text chip;         // none when the piece has no origin
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
