#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "Fuzz/Sandbox.hpp"

// Runs a target once on each file of the folders that are named, in the order of their names: the corpora, replayed by
// any compiler's build.
int main(int argumentCount, char** arguments) {
    LLVMFuzzerInitialize(&argumentCount, &arguments);
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argumentCount; ++i) {
        if (!std::filesystem::is_directory(arguments[i])) {
            files.emplace_back(arguments[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) files.push_back(entry.path());
    }
    std::ranges::sort(files);
    for (const auto& file : files) {
        const std::string bytes = quillmere::fuzz::read(file);
        // On the heap and exactly so long, so that reading past the end is noticed.
        const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
        std::fprintf(stderr, "%s\n", file.c_str());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::fprintf(stderr, "%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
