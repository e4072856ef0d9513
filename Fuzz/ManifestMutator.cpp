#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

#include "Fuzz/Sandbox.hpp"

// Makes manifests whose URLs lead everywhere: a whole new one, one with another URL in it, or one that is changed byte
// by byte, as without this.

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t mostBytes);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t mostBytes,
                                               unsigned int seed);

namespace {

class Manifests {
public:
    explicit Manifests(unsigned int seed) : random_(seed) {}

    std::size_t below(std::size_t count) { return random_() % count; }

    std::string url() {
        std::string text(one(schemes));
        text += one(bases);
        for (std::size_t count = below(4); count > 0; --count) {
            text += one(separators);
            text += one(names);
        }
        return text;
    }

    std::string manifest() {
        std::string text = words() + "[";
        const std::size_t count = 1 + below(5);
        for (std::size_t index = 0; index < count; ++index) {
            if (index > 0) text += ",";
            text += entry();
        }
        return text + "]";
    }

private:
    template <std::size_t count>
    std::string_view one(const std::array<std::string_view, count>& choices) {
        return choices[below(count)];
    }

    std::string words() {
        if (below(2) == 0) return {};
        std::string text = "#";
        if (below(8) == 0) text += std::string(one(locks)) + " ";
        for (std::size_t count = 1 + below(6); count > 0; --count) text += std::string(one(operations)) + " ";
        text.back() = '\n';
        return text;
    }

    std::string entry() {
        std::string text =
            R"({"identity":{"moodID":"deepcode","blend":{"index":2},"calmPrompt":"c","energeticPrompt":"e","seed":)";
        text += std::to_string(below(8)) + R"(,"model":")" + std::string(one(models)) + "\"";
        if (below(4) == 0) text += std::string(recording);
        return text + R"(,"recipe":1},"url":")" + url() + R"(","seconds":1})";
    }

    static constexpr std::string_view recording =
        R"(,"audio":{"guide":{"format":"f","assetID":"a","storageID":"s","model":"medium","sampleCount":1,)"
        R"("latentCount":1,"sourceName":"n","sourceOffset":0,"strength":0.5},"offset":0,"kind":"recording"})";
    static constexpr std::array<std::string_view, 7> schemes = {
        "file://", "file://", "file://", "FILE:", "file://localhost", "http://x/", ""};
    static constexpr std::array<std::string_view, 8> bases = {"$LOOPS", "$LOOPS", "$LOOPS",     "$LOOPS/sub",
                                                              "$HOME",  "/",      "$LOOPS-old", "$HOME/Outside"};
    static constexpr std::array<std::string_view, 7> separators = {"/", "/", "%2F", "//", "/./", "/../", "/%2e%2E/"};
    static constexpr std::array<std::string_view, 37> names = {"piece.wav",
                                                               "piece.wav",
                                                               "second.wav",
                                                               "a%20b.wav",
                                                               "a b.wav",
                                                               "UPPER.WAV",
                                                               "done.wav",
                                                               "done.m4a",
                                                               "sub",
                                                               "link.wav",
                                                               "linked",
                                                               "sentinel.wav",
                                                               "dangling.wav",
                                                               "loop.wav",
                                                               "device.wav",
                                                               "fifo.wav",
                                                               "folder.wav",
                                                               "piece.m4a",
                                                               ".second.wav.migration.m4a",
                                                               "Render-dead",
                                                               "Render-linked",
                                                               "audio.wav",
                                                               ".lock",
                                                               "manifest.json",
                                                               "manifest.before-2024-05-01T10-20-30Z.json",
                                                               "digests.json",
                                                               "Moods.json",
                                                               "saved.json",
                                                               ".saved.lock",
                                                               "Render-01234567-89AB-4DEF-8123-456789ABCDEF",
                                                               "damaged.wav",
                                                               "Loops",
                                                               "Loops-old",
                                                               "Loops.wav",
                                                               "Outside",
                                                               "piece.wav%00.wav",
                                                               "pi%65ce.wav?a#b"};
    static constexpr std::array<std::string_view, 10> operations = {
        "add", "discard", "loudness", "migrate", "persist", "trash", "prune", "refuse", "fail", "swap"};
    static constexpr std::array<std::string_view, 4> locks = {"fifo", "link", "notes", "twin"};
    static constexpr std::array<std::string_view, 3> models = {"sa3_medium_mlx_v2", "sa3_medium_mlx_v2", "unknown"};

    std::mt19937 random_;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t mostBytes,
                                               unsigned int seed) {
    Manifests manifests(seed);
    const auto kind = manifests.below(4);
    std::string text(quillmere::fuzz::text(data, size));
    if (kind == 0) {
        text = manifests.manifest();
    } else if (kind == 1) {
        constexpr std::string_view key = "\"url\":\"";
        const auto start = text.find(key, manifests.below(text.size() + 1));
        const auto end = start == std::string::npos ? start : text.find('"', start + key.size());
        if (end == std::string::npos) return LLVMFuzzerMutate(data, size, mostBytes);
        text.replace(start + key.size(), end - start - key.size(), manifests.url());
    } else {
        return LLVMFuzzerMutate(data, size, mostBytes);
    }
    if (text.size() > mostBytes) return LLVMFuzzerMutate(data, size, mostBytes);
    std::memcpy(data, text.data(), text.size());
    return text.size();
}
