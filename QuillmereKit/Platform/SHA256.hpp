#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quillmere {

/// An incremental SHA-256 digest (FIPS 180-4). Not thread-safe; each computation owns one. It takes memory when it is
/// made, and throws `std::bad_alloc` if there is none; nothing else can fail.
class SHA256 {
public:
    /// The 32 bytes of a digest.
    using Digest = std::array<std::uint8_t, 32>;

    SHA256();
    SHA256(SHA256&&) noexcept;
    SHA256& operator=(SHA256&&) noexcept;
    ~SHA256();

    /// Adds bytes to what is digested.
    void update(std::span<const std::byte> bytes);
    /// Adds the bytes of a text.
    void update(std::string_view text);

    /// The digest of all bytes so far; the state then starts afresh.
    [[nodiscard]] Digest finish();

    /// The digest of one text. Thread-safe. Takes no memory, which makes it quicker for a short text than an object of
    /// this class.
    [[nodiscard]] static Digest digest(std::string_view text);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Two lower-case hexadecimal digits a byte, without separator.
[[nodiscard]] std::string hexadecimal(std::span<const std::uint8_t> bytes);

}  // namespace quillmere
