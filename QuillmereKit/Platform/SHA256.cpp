#include "QuillmereKit/Platform/SHA256.hpp"

#include <openssl/evp.h>

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
    thread_local const Context context;
    context.update(text.data(), text.size());
    return context.finish();
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text(2 * bytes.size(), '\0');
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        text[2 * index] = digits[bytes[index] >> 4];
        text[2 * index + 1] = digits[bytes[index] & 0x0F];
    }
    return text;
}

}  // namespace quillmere
