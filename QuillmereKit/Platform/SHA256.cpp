#include "QuillmereKit/Platform/SHA256.hpp"

#define OPENSSL_SUPPRESS_DEPRECATED  // for the digest of a short text, below
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cstring>
#include <utility>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

/// Fetched once: looking the algorithm up costs as much as hashing a short text.
const EVP_MD* algorithm() {
    static const EVP_MD* const fetched = [] {
        const EVP_MD* digest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
        precondition(digest != nullptr, "The cryptography library has no SHA-256.");
        return digest;
    }();
    return fetched;
}

/// OpenSSL fails here only when memory runs out or the library is broken; neither leaves anything to do.
void require(int success) { precondition(success == 1, "The cryptography library failed to compute a SHA-256."); }

struct Context {
    EVP_MD_CTX* handle = EVP_MD_CTX_new();

    Context() {
        require(handle != nullptr ? 1 : 0);
        require(EVP_DigestInit_ex2(handle, algorithm(), nullptr));
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { EVP_MD_CTX_free(handle); }

    void update(const void* bytes, std::size_t count) const { require(EVP_DigestUpdate(handle, bytes, count)); }

    [[nodiscard]] SHA256::Digest finish() const {
        SHA256::Digest digest;
        require(EVP_DigestFinal_ex(handle, digest.data(), nullptr));
        require(EVP_DigestInit_ex2(handle, nullptr, nullptr));  // the same algorithm again
        return digest;
    }
};

// The two digits of each byte's value.
constexpr auto digitPairs = [] {
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<char, 512> pairs{};
    for (std::size_t value = 0; value < 256; ++value) {
        pairs[2 * value] = digits[value / 16];
        pairs[2 * value + 1] = digits[value % 16];
    }
    return pairs;
}();

}  // namespace

struct SHA256::State {
    Context context;
};

SHA256::SHA256() : state_(std::make_unique<State>()) {}
SHA256::SHA256(SHA256&&) noexcept = default;
SHA256& SHA256::operator=(SHA256&&) noexcept = default;
SHA256::~SHA256() = default;

void SHA256::update(std::span<const std::byte> bytes) { state_->context.update(bytes.data(), bytes.size()); }

void SHA256::update(std::string_view text) { state_->context.update(text.data(), text.size()); }

SHA256::Digest SHA256::finish() { return state_->context.finish(); }

SHA256::Digest SHA256::digest(std::string_view text) {
    // The plain functions do the same work. A context of the general interface takes memory and gives it back with
    // every digest; for a text as short as an identity's that is a fifth of the whole.
    SHA256_CTX state;
    Digest digest;
    require(SHA256_Init(&state));
    require(SHA256_Update(&state, text.data(), text.size()));
    require(SHA256_Final(digest.data(), &state));
    return digest;
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    std::string text(2 * bytes.size(), '\0');
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        std::memcpy(text.data() + 2 * index, digitPairs.data() + 2 * std::size_t{bytes[index]}, 2);
    }
    return text;
}

}  // namespace quillmere
