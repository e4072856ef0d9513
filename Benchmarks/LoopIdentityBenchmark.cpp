#include <openssl/sha.h>

#include <array>
#include <cstddef>
#include <string>

#include "Benchmarks/Comparison.hpp"
#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

// An identity's fingerprint, and OpenSSL's one-shot SHA-256 over the text that the fingerprint hashes, without putting
// that text together.

namespace quillmere::benchmarks {
namespace {

LoopIdentity identityWith(std::size_t promptLength) {
    auto identity = MoodCatalog::defaultMood().identity(BlendStep(1), 123456789, "sa3_medium_mlx_v2");
    if (promptLength > 0) identity->prompt = std::string(promptLength, 'p');
    return *identity;
}

// As long as the text that is hashed, and as long to hash.
std::string hashedText(const LoopIdentity& identity) {
    std::string text = "v" + std::to_string(identity.recipe);
    for (const std::string& part :
         {identity.model, identity.moodID, "blend=" + std::to_string(identity.blend.index()) + "/5",
          "seed=" + std::to_string(identity.seed), identity.calmPrompt, identity.energeticPrompt}) {
        text.append("\x1f").append(part);
    }
    if (identity.prompt) text.append("\x1fprompt=").append(*identity.prompt);
    return text;
}

bool compareOn(const std::string& subject, std::size_t promptLength) {
    return compare(
        subject,
        [=](benchmark::State& state) {
            const auto identity = identityWith(promptLength);
            for (auto _ : state) benchmark::DoNotOptimize(identity.fingerprint());
        },
        [=](benchmark::State& state) {
            const auto text = hashedText(identityWith(promptLength));
            std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
            for (auto _ : state) {
                SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
                benchmark::DoNotOptimize(digest);
            }
        },
        benchmark::kNanosecond);
}

[[maybe_unused]] const bool registered =
    compareOn("Fingerprint", 0) && compareOn("Fingerprint, with a complete prompt of 300 characters", 300);

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
