#include "QuillmereKit/Platform/SHA256.hpp"

// The plain functions, which OpenSSL would rather have called through its general interface: they compute the same by
// the same code, take no memory, and so cannot fail.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include <cstring>

#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

void require(int success) { precondition(success == 1, "The cryptography library failed to compute a SHA-256."); }

void begin(SHA256_CTX& context) { require(SHA256_Init(&context)); }

void add(SHA256_CTX& context, const void* bytes, std::size_t count) { require(SHA256_Update(&context, bytes, count)); }

SHA256::Digest end(SHA256_CTX& context) {
    SHA256::Digest digest;
    require(SHA256_Final(digest.data(), &context));
    return digest;
}

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
    SHA256_CTX context;
};

SHA256::SHA256() : state_(std::make_unique<State>()) { begin(state_->context); }
SHA256::SHA256(SHA256&&) noexcept = default;
SHA256& SHA256::operator=(SHA256&&) noexcept = default;
SHA256::~SHA256() = default;

void SHA256::update(std::span<const std::byte> bytes) { add(state_->context, bytes.data(), bytes.size()); }

void SHA256::update(std::string_view text) { add(state_->context, text.data(), text.size()); }

SHA256::Digest SHA256::finish() {
    const auto digest = end(state_->context);
    begin(state_->context);
    return digest;
}

SHA256::Digest SHA256::digest(std::string_view text) {
    SHA256_CTX context;
    begin(context);
    add(context, text.data(), text.size());
    return end(context);
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    std::string text(2 * bytes.size(), '\0');
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        std::memcpy(text.data() + 2 * index, digitPairs.data() + 2 * std::size_t{bytes[index]}, 2);
    }
    return text;
}

}  // namespace quillmere
