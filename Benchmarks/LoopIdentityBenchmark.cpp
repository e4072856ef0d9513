#include <benchmark/benchmark.h>
#include <openssl/sha.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

// An identity's fingerprint, and OpenSSL's one-shot SHA-256 over the text that the fingerprint hashes, without putting
// that text together. Argument: length of the prompt that replaces the blended one, 0 for none.

namespace {

using quillmere::LoopIdentity;

LoopIdentity identityWith(std::int64_t promptLength) {
    auto identity =
        quillmere::MoodCatalog::defaultMood().identity(quillmere::BlendStep(1), 123456789, "sa3_medium_mlx_v2");
    if (promptLength > 0) identity->prompt = std::string(static_cast<std::size_t>(promptLength), 'p');
    return *identity;
}

std::string hashedText(const LoopIdentity& identity) {
    std::string text = "v";
    text += std::to_string(identity.recipe);
    text += '\x1f' + identity.model;
    text += '\x1f' + identity.moodID;
    text.append(
            "\x1f"
            "blend=")
        .append(std::to_string(identity.blend.index()))
        .append("/5");
    text.append("\x1fseed=").append(std::to_string(identity.seed));
    text += '\x1f' + identity.calmPrompt;
    text += '\x1f' + identity.energeticPrompt;
    if (identity.prompt) text.append("\x1fprompt=").append(*identity.prompt);
    return text;
}

void fingerprint(benchmark::State& state) {
    const auto identity = identityWith(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(identity.fingerprint());
    state.counters["bytes"] = static_cast<double>(hashedText(identity).size());
}
BENCHMARK(fingerprint)->Arg(0)->Arg(300);

void oneShotDigest(benchmark::State& state) {
    const auto text = hashedText(identityWith(state.range(0)));
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
    for (auto _ : state) {
        SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
        benchmark::DoNotOptimize(digest);
    }
    state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(oneShotDigest)->Arg(0)->Arg(300);

}  // namespace

BENCHMARK_MAIN();
